# The one list of what is different when the tests are compiled for another machine and run under its
# emulator; everything else runs there as it does here. Timings mean nothing there, but no test
# measures any: they wait for events.
#
#   what                         how             why
#   tests/package                left out        it configures and builds further projects with the
#                                                compilers of the machine that it runs on; what the
#                                                foreign packages hold is checked by `./run package`
#   korvane_list_overflow_test   left out        it counts to 2^32: seconds here, minutes there
#   korvane_stress_tests         3,000 lives of  an emulated thread takes milliseconds to make
#                                handlers in
#                                place of 10,000
set(KORVANE_TESTS_LEFT_OUT)
set(KORVANE_TESTS_SHORTENED)
if(CMAKE_CROSSCOMPILING)
  set(KORVANE_TESTS_LEFT_OUT package korvane_list_overflow_test)
  set(KORVANE_TESTS_SHORTENED korvane_stress_tests)
  message(STATUS "Emulated: tests left out: ${KORVANE_TESTS_LEFT_OUT}; "
                 "shortened: ${KORVANE_TESTS_SHORTENED}")
endif()
