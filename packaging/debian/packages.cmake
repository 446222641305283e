# The Debian packages, one for each component.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME verdel)
set(CPACK_PACKAGE_CONTACT "VERDEL maintainers <maintainers@verdel.example>" CACHE STRING
    "Who stands behind the packages")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_COMPONENTS_ALL programs development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE verdel)

set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME verdel)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PROGRAMS_DESCRIPTION "stems that sum to the mix
VERDEL takes a finished stereo mix and the recordings it was made from, one
per stem, bounced before the master chain, and delivers one stem for each.
Summed, they give back the mix to better than -140 dBFS, which every run
proves from the files on the disk.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libverdel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libsndfile1-dev, libfftw3-dev, libicu-dev, libfmt-dev, pkg-config")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "stems that sum to the mix, library for embedding
The engine of VERDEL for programs that hold their audio in memory: from a
finished mix and the recordings it was made from to stems whose sum is the
mix. The package has the static library, its header, and what CMake and
pkg-config need to find it.")

# What only Debian wants goes into the packages, not into every installation.
set(CPACK_VERDEL_SOURCE ${PROJECT_SOURCE_DIR})
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/debian/complete.cmake)
include(CPack)
