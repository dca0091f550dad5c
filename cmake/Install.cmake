# What `cmake --install` puts under the prefix:
#   lib/<multiarch>/libtidewayapi.so.<version>, .so.<major> and .so     the module
#   include/tideway/*.h                                                the public headers
#   bin/tideway-host, tideway-agent-sim, tideway-obfuscate             the tools
#   share/tideway/tideway-host.catalogue, share/tideway/web/           the harness's texts, page
#   lib/<multiarch>/pkgconfig/tidewayapi.pc                            for pkg-config
#   lib/<multiarch>/cmake/tidewayapi/                                  for find_package
# Included from the top-level CMakeLists.txt once every target exists.
include(CMakePackageConfigHelpers)

set(TIDEWAY_INSTALL_DATADIR "${CMAKE_INSTALL_DATADIR}/tideway")
set(TIDEWAY_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/tidewayapi")
set(TIDEWAY_MODULE_SONAME "libtidewayapi.so.${PROJECT_VERSION_MAJOR}")

install(TARGETS tidewayapi LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tideway
        FILES_MATCHING PATTERN "*.h")
# The fuzzing build has no simulator or obfuscation tool.
foreach(tool tideway-host tideway-agent-sim tideway-obfuscate)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/tools/tideway-host/tideway-host.catalogue
        DESTINATION ${TIDEWAY_INSTALL_DATADIR})
# The page only; its protocol notes are for developers.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/tools/tideway-host/web/ DESTINATION ${TIDEWAY_INSTALL_DATADIR}/web
        PATTERN "*.md" EXCLUDE)

# The headers as an imported target for find_package users. Linking it brings the library
# that dlopen lives in, nothing of the module.
add_library(tidewayapi_headers INTERFACE)
set_target_properties(tidewayapi_headers PROPERTIES EXPORT_NAME headers)
target_include_directories(tidewayapi_headers INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/tideway>)
target_link_libraries(tidewayapi_headers INTERFACE ${CMAKE_DL_LIBS})
install(TARGETS tidewayapi_headers EXPORT tidewayapiTargets)
install(EXPORT tidewayapiTargets NAMESPACE tidewayapi:: DESTINATION ${TIDEWAY_INSTALL_CMAKEDIR})
# The config file finds its prefix from its own place, so a moved tree (dpkg -x into a scratch
# root) still resolves.
set(TIDEWAY_MODULE_INSTALL_PATH "${CMAKE_INSTALL_LIBDIR}/${TIDEWAY_MODULE_SONAME}")
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tidewayapiConfig.cmake.in
    ${PROJECT_BINARY_DIR}/tidewayapiConfig.cmake
    INSTALL_DESTINATION ${TIDEWAY_INSTALL_CMAKEDIR}
    PATH_VARS TIDEWAY_MODULE_INSTALL_PATH)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tidewayapiConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tidewayapiConfig.cmake
              ${PROJECT_BINARY_DIR}/tidewayapiConfigVersion.cmake
        DESTINATION ${TIDEWAY_INSTALL_CMAKEDIR})

# tidewayapi.pc names the prefix that the installation really uses (`cmake --install --prefix`
# or the package's /usr), so it is written at install time and then installed.
set(TIDEWAY_PC_LIBS "")
foreach(lib IN LISTS CMAKE_DL_LIBS)
  string(APPEND TIDEWAY_PC_LIBS " -l${lib}")
endforeach()
string(STRIP "${TIDEWAY_PC_LIBS}" TIDEWAY_PC_LIBS)
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    message(FATAL_ERROR "CMAKE_INSTALL_${dir} must be relative to the prefix for tidewayapi.pc")
  endif()
  set(TIDEWAY_PC_${dir} "${CMAKE_INSTALL_${dir}}")
endforeach()
# The prefix placeholder survives this first pass.
set(TIDEWAY_PC_PREFIX "@TIDEWAY_PC_PREFIX@")
configure_file(${CMAKE_CURRENT_LIST_DIR}/tidewayapi.pc.in ${PROJECT_BINARY_DIR}/tidewayapi.pc.in
               @ONLY)
install(CODE "
  set(TIDEWAY_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${PROJECT_BINARY_DIR}/tidewayapi.pc.in\" \"${PROJECT_BINARY_DIR}/tidewayapi.pc\" @ONLY)
")
install(FILES ${PROJECT_BINARY_DIR}/tidewayapi.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
