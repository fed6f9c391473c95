lumbra_add_test(sqlitedb_test SOURCES sqlitedb_test.cpp LIBS lumbra_SQLiteDB)
