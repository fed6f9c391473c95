// What the standard library may do on a box.
#pragma once

struct lua_State;

namespace lumbra {

// debug.sethook is the watchdog's: a script that set its own hook would
// switch the watchdog off. Applied to every interpreter.
void reserveHooks(lua_State *L);

// For boxes that want it: no os.execute, io.popen, os.exit or os.tmpname, no
// C modules (package.loadlib, the C searchers of require), and io.open,
// io.output, os.remove and os.rename refuse paths that lead out of the
// working directory (symbolic links followed).
void applySandbox(lua_State *L);

// Whether a script may write path: it must lead into the working directory.
bool sandboxAllowsWrite(const char *path);

}  // namespace lumbra
