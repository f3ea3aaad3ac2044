# What an installation holds besides the library and its headers (see
# src/CMakeLists.txt): the CMake package, the pkg-config file, and the
# Debian packages cpack builds from the install components
#   runtime -> libpushchat0      the shared library
#   dev     -> libpushchat-dev   headers, CMake and pkg-config files, link name
#   tools   -> pushchat-tools    the command-line client and its man page,
#                                and the development server
#   python  -> python3-pushchat  the Python package (pure Python, over the
#                                C interface of the runtime package)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(pushchat_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/pushchat)

install(EXPORT pushchatTargets NAMESPACE pushchat:: DESTINATION ${pushchat_cmake_dir} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/pushchatConfig.cmake.in
  ${PROJECT_BINARY_DIR}/pushchatConfig.cmake
  INSTALL_DESTINATION ${pushchat_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/pushchatConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/pushchatConfig.cmake ${PROJECT_BINARY_DIR}/pushchatConfigVersion.cmake
  DESTINATION ${pushchat_cmake_dir} COMPONENT dev)

file(RELATIVE_PATH PC_PREFIX_FROM_PCFILEDIR
  ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${CMAKE_CURRENT_LIST_DIR}/pushchat.pc.in ${PROJECT_BINARY_DIR}/pushchat.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pushchat.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# Debian packages: cpack -G DEB in the build directory. Each description's
# first line is its package's summary.
set(CPACK_PACKAGE_NAME pushchat)
set(CPACK_PACKAGE_VENDOR "The pushchat developers")
set(CPACK_PACKAGE_CONTACT "pushchat developers <pushchat@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev tools python)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tools' binary needs libpushchat.so.0 from the runtime package, which
# dpkg-shlibdeps finds here while the packages are built.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libpushchat${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Instant-messaging client library over an MQTT broker
pushchat logs a user in to an instant-messaging server over an MQTT broker,
exchanges one-to-one and room messages, fetches history and manages
friends and group rooms. This package holds the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libpushchat-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libpushchat${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), qtbase5-dev (>= ${PUSHCHAT_QT_MIN_VERSION})")
set(CPACK_DEBIAN_DEV_DESCRIPTION "Instant-messaging client library over an MQTT broker (development files)
The public headers, the CMake package (find_package(pushchat)) and the
pkg-config file of pushchat.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME pushchat-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libpushchat${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Instant messaging from a terminal over an MQTT broker
The pushchat command-line client: log in, send and receive messages,
manage rooms and friends and fetch history from a shell. And
pushchat-devserver, a server for development and demos (not for
production) that answers every command of the library from SQLite.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-pushchat)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "libpushchat${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), python3 (>= 3.8)")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "Instant messaging over an MQTT broker (Python 3)
The Python package pushchat: a Client with the library's operations as
methods and its events as objects, to iterate or to await in asyncio.
Pure Python over the library's C interface.")

include(CPack)
