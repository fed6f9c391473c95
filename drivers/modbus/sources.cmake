# The driver without its exported entry points: the plug-ins add entry.cpp,
# the fuzz build compiles this core into its harness.
set(MODBUS_DRIVER_CORE_SOURCES
  address.cpp
  adu.cpp
  cache.cpp
  codec.cpp
  condreads.cpp
  linksetup.cpp
  log.cpp
  master.cpp
  master_reply.cpp
  pdu.cpp
  plan.cpp
  poller.cpp
  settings.cpp
  text.cpp
  writes.cpp
)
list(TRANSFORM MODBUS_DRIVER_CORE_SOURCES PREPEND ${CMAKE_CURRENT_LIST_DIR}/)
