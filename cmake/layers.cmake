# verdel_library(FOLDER LINK ... PRIVATE_LINK ...): the sources of src/FOLDER as verdel_FOLDER.
function(verdel_library folder)
  cmake_parse_arguments(ARG "" "" "LINK;PRIVATE_LINK" ${ARGN})
  set(target verdel_${folder})
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/${folder}/*.cpp)
  add_library(${target} STATIC ${sources})
  set_property(GLOBAL APPEND PROPERTY VERDEL_FOLDERS ${folder})
  target_include_directories(${target} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${target} PUBLIC ${ARG_LINK} PRIVATE verdel_flags ${ARG_PRIVATE_LINK})
endfunction()

# verdel_program(NAME ENTRY): the program NAME from src/apps/ENTRY.cpp.
function(verdel_program name entry)
  add_executable(${name} ${PROJECT_SOURCE_DIR}/src/apps/${entry}.cpp)
  target_link_libraries(${name} PRIVATE verdel_driver verdel_flags)
endfunction()
