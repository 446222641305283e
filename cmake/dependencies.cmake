set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(fmt REQUIRED)
if(APPLE AND NOT ICU_ROOT)
  # Homebrew keeps ICU out of the search path.
  execute_process(COMMAND brew --prefix icu4c OUTPUT_VARIABLE ICU_ROOT
                  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
find_package(ICU REQUIRED COMPONENTS uc)
pkg_check_modules(SNDFILE REQUIRED IMPORTED_TARGET sndfile)
pkg_check_modules(FFTW REQUIRED IMPORTED_TARGET fftw3)
pkg_check_modules(FFTWF REQUIRED IMPORTED_TARGET fftw3f)
include(${PROJECT_SOURCE_DIR}/packaging/cmake/fftw-threads.cmake)
