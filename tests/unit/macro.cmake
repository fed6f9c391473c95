# The macro engine and its timers on local registers.
lumbra_add_test(macro_test SOURCES macro_test.cpp LIBS lumbra_Macro)
