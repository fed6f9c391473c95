#include "macrosandbox.h"

#include <QDir>
#include <QFileInfo>

#include <cstring>

extern "C" {
#include <lauxlib.h>
#include <lua.h>
}

namespace lumbra {

namespace {

const char kRefused[] = "%s: writing outside the working directory is not allowed";

bool writes(const char *mode)
{
    return std::strpbrk(mode, "wa+") != nullptr;
}

int refuse(lua_State *L, const char *path)
{
    lua_pushnil(L);
    lua_pushfstring(L, kRefused, path);
    return 2;
}

// Calls the function the guard stands for (its upvalue) with every argument.
int callOriginal(lua_State *L)
{
    const int n = lua_gettop(L);
    lua_pushvalue(L, lua_upvalueindex(1));
    lua_insert(L, 1);
    lua_call(L, n, LUA_MULTRET);
    return lua_gettop(L);
}

int guardedOpen(lua_State *L)
{
    const char *path = luaL_checkstring(L, 1);
    const char *mode = luaL_optstring(L, 2, "r");
    if (writes(mode) && !sandboxAllowsWrite(path))
        return refuse(L, path);
    return callOriginal(L);
}

// io.output with a name opens that file for writing; a handle passes.
int guardedOutput(lua_State *L)
{
    if (lua_type(L, 1) == LUA_TSTRING && !sandboxAllowsWrite(lua_tostring(L, 1)))
        return luaL_error(L, kRefused, lua_tostring(L, 1));
    return callOriginal(L);
}

int guardedRemove(lua_State *L)
{
    const char *path = luaL_checkstring(L, 1);
    if (!sandboxAllowsWrite(path))
        return refuse(L, path);
    return callOriginal(L);
}

int guardedRename(lua_State *L)
{
    const char *from = luaL_checkstring(L, 1);
    const char *to = luaL_checkstring(L, 2);
    if (!sandboxAllowsWrite(from))
        return refuse(L, from);
    if (!sandboxAllowsWrite(to))
        return refuse(L, to);
    return callOriginal(L);
}

void wrap(lua_State *L, const char *lib, const char *name, lua_CFunction guard)
{
    lua_getglobal(L, lib);
    if (lua_istable(L, -1)) {
        lua_getfield(L, -1, name);
        lua_pushcclosure(L, guard, 1);
        lua_setfield(L, -2, name);
    }
    lua_pop(L, 1);
}

void drop(lua_State *L, const char *lib, const char *name)
{
    lua_getglobal(L, lib);
    if (lua_istable(L, -1)) {
        lua_pushnil(L);
        lua_setfield(L, -2, name);
    }
    lua_pop(L, 1);
}

// require keeps its Lua searchers (preload, Lua files); 3 and 4 load C code.
void dropCModules(lua_State *L)
{
    drop(L, "package", "loadlib");
    lua_getglobal(L, "package");
    if (lua_istable(L, -1)) {
        lua_getfield(L, -1, "searchers");
        if (lua_istable(L, -1)) {
            lua_pushnil(L);
            lua_rawseti(L, -2, 4);
            lua_pushnil(L);
            lua_rawseti(L, -2, 3);
        }
        lua_pop(L, 1);
        lua_pushliteral(L, "");
        lua_setfield(L, -2, "cpath");
    }
    lua_pop(L, 1);
}

}  // namespace

bool sandboxAllowsWrite(const char *path)
{
    const QString root = QDir::current().canonicalPath();
    const auto inside = [&root](const QString &p) { return !root.isEmpty() && p.startsWith(root + '/'); };
    const QFileInfo target(QDir::current(), QString::fromLocal8Bit(path));
    if (target.exists())
        return inside(target.canonicalFilePath());
    if (target.isSymLink())  // dangling: writing it would create its target, wherever that is
        return false;
    const QString dir = QFileInfo(target.absolutePath()).canonicalFilePath();
    return !dir.isEmpty() && (dir == root || inside(dir));
}

void reserveHooks(lua_State *L)
{
    drop(L, "debug", "sethook");
}

void applySandbox(lua_State *L)
{
    drop(L, "os", "execute");
    drop(L, "io", "popen");
    drop(L, "os", "exit");
    drop(L, "os", "tmpname");
    dropCModules(L);
    wrap(L, "io", "open", guardedOpen);
    wrap(L, "io", "output", guardedOutput);
    wrap(L, "os", "remove", guardedRemove);
    wrap(L, "os", "rename", guardedRename);
}

}  // namespace lumbra
