// The script function library: the native functions that the macro engine
// binds to the names of MACROFUNCNAME, in that order. None raises a Lua
// error on bad arguments: a missing number reads 0, a missing string "".
#pragma once

extern "C" {
#include <lua.h>
}

#include <QString>

#include <cstddef>

namespace lumbra {

extern const lua_CFunction kMacroFunctions[];
extern const size_t kMacroFunctionCount;

// Binds the 43 functions and the 15 MACROVAR globals on L, in table order.
void registerMacroGlobals(lua_State *L);

// Lenient argument readers shared by the library's files.
double macroNumber(lua_State *L, int arg);
int macroInt(lua_State *L, int arg);
QString macroText(lua_State *L, int arg);

}  // namespace lumbra
