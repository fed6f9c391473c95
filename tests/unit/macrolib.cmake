# The script function library, from Lua, against local registers and a loopback TCP peer.
lumbra_add_test(macrolib_test SOURCES macrolib_test.cpp LIBS lumbra_Macro)
