# corvane_bench_bus (bench_bus.cpp): a SetLineCallState call and its answer
# between two processes through the library and libcorvane_dbus, next to a
# plain sd-bus call with the same bytes. Built wherever the D-Bus middleware
# is (it needs neither Google Benchmark nor protobuf); run it by hand:
#   build/default/bench/corvane_bench_bus
add_executable(corvane_bench_bus ${CMAKE_CURRENT_LIST_DIR}/bench_bus.cpp)
target_link_libraries(corvane_bench_bus PRIVATE Corvane corvane_dbus PkgConfig::SYSTEMD)
target_compile_options(corvane_bench_bus PRIVATE ${CORVANE_WARNINGS})
set_target_properties(corvane_bench_bus PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bench)
