# Each benchmark once at its smallest size, among the tests: that it builds, runs and finds its results right. Times mean
# nothing there.
set(bench_filter_smallest --benchmark_filter=parse --benchmark_repetitions=1 --benchmark_min_time=0.001)
set(bench_message_smallest --benchmark_min_time=0.001)

get_property(folders DIRECTORY PROPERTY SUBDIRECTORIES)
foreach(folder ${folders})
  get_property(targets DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
  list(FILTER targets INCLUDE REGEX "^bench_")
  foreach(bench ${targets})
    if(NOT DEFINED ${bench}_smallest)
      set(${bench}_smallest --smallest)
    endif()
    add_test(NAME ${bench} COMMAND ${bench} ${${bench}_smallest})
    set_tests_properties(${bench} PROPERTIES TIMEOUT 1800 LABELS bench)
  endforeach()
endforeach()
