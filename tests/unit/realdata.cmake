lumbra_add_test(realdata_test SOURCES realdata_test.cpp LIBS lumbra_RealData)
