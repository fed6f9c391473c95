lumbra_add_test(linkthread_test SOURCES linkthread_test.cpp LIBS lumbra_device_comm)
target_compile_definitions(linkthread_test PRIVATE SCRIPTED_DRIVER="$<TARGET_FILE:scripted_driver>")
add_dependencies(linkthread_test scripted_driver)
