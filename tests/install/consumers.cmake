# A program that uses the library, and its test.
find_package(GTest CONFIG REQUIRED)
add_executable(consumer ${CMAKE_CURRENT_LIST_DIR}/consumer.cc)
target_link_libraries(consumer PRIVATE tidegate::metrics)
add_executable(consumer_test ${CMAKE_CURRENT_LIST_DIR}/consumer_test.cc)
target_link_libraries(consumer_test PRIVATE tidegate::metrics-testing GTest::gmock_main)
