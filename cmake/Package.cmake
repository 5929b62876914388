# Packages: `cpack` in a build tree makes a .deb of each component, or with -G TGZ an archive.
set(CPACK_PACKAGE_NAME ornik)
set(CPACK_PACKAGE_VENDOR "The developers of ornik")
set(CPACK_PACKAGE_CONTACT "The developers of ornik <ornik@localhost>" CACHE STRING "Name and address of the packager")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Tensors and deep learning on processors")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development)
if(NOT CPACK_GENERATOR)
  set(CPACK_GENERATOR DEB)
endif()

# One package of each component; programs of one SONAME find their library whatever else is installed.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libornik${ornik_soversion})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libornik-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libornik${ornik_soversion} (= ${PROJECT_VERSION})")
string(TIMESTAMP package_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE ${PROJECT_BINARY_DIR}/changelog "ornik (${PROJECT_VERSION}) unstable; urgency=medium

  * Version ${PROJECT_VERSION}.

 -- ${CPACK_PACKAGE_CONTACT}  ${package_date}
")
file(ARCHIVE_CREATE OUTPUT ${PROJECT_BINARY_DIR}/changelog.gz PATHS ${PROJECT_BINARY_DIR}/changelog
     FORMAT raw COMPRESSION GZip COMPRESSION_LEVEL 9)
foreach(component IN ITEMS runtime development)
  string(TOUPPER ${component} upper)
  if(UNIX)
    install(FILES ${CPACK_RESOURCE_FILE_LICENSE} COMPONENT ${component} RENAME copyright
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    install(FILES ${PROJECT_BINARY_DIR}/changelog.gz COMPONENT ${component}
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  endif()
endforeach()
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "The shared library")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers, CMake package and pkg-config file")
include(CPack)
