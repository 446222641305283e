# Installs the build into a folder, moves that folder, and builds and runs the example of an
# embedding program against it: through find_package and through pkg-config.
set(root ${build}/installation)
file(REMOVE_RECURSE ${root})
function(run)
  execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY OUTPUT_VARIABLE output)
  set(output ${output} PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${build} --prefix ${root}/first)
file(RENAME ${root}/first ${root}/moved)
set(prefix ${root}/moved)
file(STRINGS ${source}/VERSION version)

run(${prefix}/bin/verdel --version)
if(NOT output STREQUAL "verdel ${version}\n")
  message(FATAL_ERROR "the installed program says: ${output}")
endif()

run(${CMAKE_COMMAND} -S ${source}/examples/embedding -B ${root}/build -G ${generator}
    -D CMAKE_PREFIX_PATH=${prefix} -D CMAKE_CXX_COMPILER=${compiler} -D CMAKE_CXX_FLAGS=${flags})
run(${CMAKE_COMMAND} --build ${root}/build)
run(${root}/build/embedding)

file(GLOB_RECURSE description ${prefix}/verdel.pc)
cmake_path(GET description PARENT_PATH descriptions)
set(ENV{PKG_CONFIG_PATH} "${descriptions}:$ENV{PKG_CONFIG_PATH}")
run(pkg-config --exact-version=${version} verdel)
run(pkg-config --cflags --libs verdel)
separate_arguments(found UNIX_COMMAND "${output}")
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${compiler} ${flags} -std=c++20 ${source}/examples/embedding/embedding.cpp ${found}
    -o ${root}/embedding)
run(${root}/embedding)
