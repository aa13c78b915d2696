# The library: compiled once, linked twice. The shared library is what users get; the static one gives the
# tests the private pieces too.
set(NUVIKA_ROOMS core misc media net msg http rtsp text)
set(NUVIKA_SOURCE_DIR "${PROJECT_SOURCE_DIR}/src")

file(GLOB NUVIKA_SOURCES CONFIGURE_DEPENDS "${NUVIKA_SOURCE_DIR}/*.cpp" "${NUVIKA_SOURCE_DIR}/platform/linux/*.cpp")
file(GLOB NUVIKA_PUBLIC_HEADERS CONFIGURE_DEPENDS "${NUVIKA_SOURCE_DIR}/*.h")
foreach(room IN LISTS NUVIKA_ROOMS)
  file(GLOB sources CONFIGURE_DEPENDS "${NUVIKA_SOURCE_DIR}/${room}/*.cpp")
  file(GLOB headers CONFIGURE_DEPENDS "${NUVIKA_SOURCE_DIR}/${room}/*.h")
  list(APPEND NUVIKA_SOURCES ${sources})
  list(APPEND NUVIKA_PUBLIC_HEADERS ${headers})
endforeach()
file(GLOB_RECURSE NUVIKA_PRIVATE_HEADERS CONFIGURE_DEPENDS "${NUVIKA_SOURCE_DIR}/*_p.h")
list(REMOVE_ITEM NUVIKA_PUBLIC_HEADERS ${NUVIKA_PRIVATE_HEADERS})

# Public headers lie flat under one folder, in the build tree as in an install.
set(NUVIKA_INCLUDE_DIR "${PROJECT_BINARY_DIR}/include")
file(MAKE_DIRECTORY "${NUVIKA_INCLUDE_DIR}/KepNuvikaUtil")
foreach(header IN LISTS NUVIKA_PUBLIC_HEADERS)
  get_filename_component(name "${header}" NAME)
  file(CREATE_LINK "${header}" "${NUVIKA_INCLUDE_DIR}/KepNuvikaUtil/${name}" SYMBOLIC)
endforeach()

add_library(nuvika_objects OBJECT ${NUVIKA_SOURCES} ${NUVIKA_PUBLIC_HEADERS} ${NUVIKA_PRIVATE_HEADERS})
set_target_properties(nuvika_objects PROPERTIES
  POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
target_compile_definitions(nuvika_objects PRIVATE KEPNUVIKAUTIL_BUILD)
# Exported functions are inlined into each other as the hidden ones are: nobody replaces them.
target_compile_options(nuvika_objects PRIVATE -fno-semantic-interposition)
target_include_directories(nuvika_objects PUBLIC "${NUVIKA_INCLUDE_DIR}" PRIVATE "${NUVIKA_SOURCE_DIR}")
target_link_libraries(nuvika_objects PUBLIC Qt5::Core Qt5::Network Threads::Threads PRIVATE OpenSSL::SSL OpenSSL::Crypto PkgConfig::GLIB nuvika_flags)

add_library(KepNuvikaUtil SHARED $<TARGET_OBJECTS:nuvika_objects>)
add_library(KepNuvikaUtil::KepNuvikaUtil ALIAS KepNuvikaUtil)
set_target_properties(KepNuvikaUtil PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
  AUTOMOC OFF)
target_include_directories(KepNuvikaUtil INTERFACE
  $<BUILD_INTERFACE:${NUVIKA_INCLUDE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(KepNuvikaUtil PUBLIC Qt5::Core Qt5::Network PRIVATE OpenSSL::SSL OpenSSL::Crypto PkgConfig::GLIB Threads::Threads)
if(NUVIKA_SANITIZE)
  target_link_options(KepNuvikaUtil PRIVATE -fsanitize=${NUVIKA_SANITIZE})
else()
  target_link_options(KepNuvikaUtil PRIVATE -Wl,--no-undefined)
endif()
# A lookup that hangs in the resolver may outlive the clean-up: its code must stay.
target_link_options(KepNuvikaUtil PRIVATE -Wl,-z,nodelete
  "-Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map")
set_target_properties(KepNuvikaUtil PROPERTIES LINK_DEPENDS "${PROJECT_SOURCE_DIR}/cmake/exports.map")

add_library(nuvika_static STATIC $<TARGET_OBJECTS:nuvika_objects>)
set_target_properties(nuvika_static PROPERTIES AUTOMOC OFF)
target_include_directories(nuvika_static PUBLIC "${NUVIKA_INCLUDE_DIR}" "${NUVIKA_SOURCE_DIR}")
target_compile_definitions(nuvika_static PUBLIC KEPNUVIKAUTIL_BUILD)
target_link_libraries(nuvika_static PUBLIC Qt5::Core Qt5::Network OpenSSL::SSL OpenSSL::Crypto PkgConfig::GLIB Threads::Threads)

install(TARGETS KepNuvikaUtil EXPORT KepNuvikaUtilTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${NUVIKA_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/KepNuvikaUtil)
set(NUVIKA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KepNuvikaUtil)
install(EXPORT KepNuvikaUtilTargets NAMESPACE KepNuvikaUtil:: DESTINATION ${NUVIKA_CMAKE_DIR})
export(EXPORT KepNuvikaUtilTargets NAMESPACE KepNuvikaUtil:: FILE "${PROJECT_BINARY_DIR}/KepNuvikaUtilTargets.cmake")
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/KepNuvikaUtilConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/KepNuvikaUtilConfig.cmake" INSTALL_DESTINATION ${NUVIKA_CMAKE_DIR})
write_basic_package_version_file("${PROJECT_BINARY_DIR}/KepNuvikaUtilConfigVersion.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/KepNuvikaUtilConfig.cmake" "${PROJECT_BINARY_DIR}/KepNuvikaUtilConfigVersion.cmake"
  DESTINATION ${NUVIKA_CMAKE_DIR})
file(RELATIVE_PATH NUVIKA_PREFIX_FROM_PC "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/") # an install may be moved
configure_file("${PROJECT_SOURCE_DIR}/cmake/KepNuvikaUtil.pc.in" "${PROJECT_BINARY_DIR}/KepNuvikaUtil.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/KepNuvikaUtil.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kepnuvikautil)
set(CPACK_PACKAGE_CONTACT "KepNuvikaUtil developers <developers@kepnuvikautil.invalid>")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
include(CPack)
