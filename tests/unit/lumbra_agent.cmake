# Parts of lumbra-agent on their own.
lumbra_add_test(agent_publishqueue_test SOURCES agent_publishqueue_test.cpp LIBS lumbra_agent_core)
