# FFTW::threads, with which FFTW's planner waits for a host that plans transforms of its own; empty
# where FFTW came without its threads.
find_library(FFTW_THREADS fftw3_threads HINTS ${FFTW_LIBRARY_DIRS})
find_library(FFTWF_THREADS fftw3f_threads HINTS ${FFTWF_LIBRARY_DIRS})
mark_as_advanced(FFTW_THREADS FFTWF_THREADS)
add_library(FFTW::threads INTERFACE IMPORTED)
if(FFTW_THREADS AND FFTWF_THREADS)
  set_target_properties(FFTW::threads PROPERTIES
    INTERFACE_COMPILE_DEFINITIONS VERDEL_FFTW_THREADS
    INTERFACE_LINK_LIBRARIES "${FFTW_THREADS};${FFTWF_THREADS}")
endif()
