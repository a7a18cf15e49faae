# SPDX-License-Identifier: Apache-2.0
# Install rules and the packages downstream builds consume: the CMake package TarnwickUpnp
# (target Tarnwick::upnp) and the pkg-config module tarnwick-upnp. Included at the end of the
# top-level CMakeLists.txt, after every target exists.
#
#   cmake --install build --prefix /opt/tarnwick          # or DESTDIR=... for staging
#
# Components: Runtime (shared library with its soname links, example programs, data files) and
# Development (headers, unversioned .so link, CMake package, pkg-config file).
include(CMakePackageConfigHelpers)

set(TW_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/TarnwickUpnp)

# ---- Where the installed library finds liblog ------------------------------------------------
# Debian ships liblog in /usr/lib/<multiarch>/android, off the loader's default path on purpose,
# and its own users of that directory (liblog itself included) reach it through a RUNPATH. The
# installed library does the same: otherwise it, and every program linked against it, loads only
# with LD_LIBRARY_PATH or an ld.so.conf entry, and linking a consumer fails because the linker
# cannot find liblog.so.0 either (GNU ld follows the library's RUNPATH for that). RUNPATH applies
# only to the library's own dependencies, so it does not leak into the consumer.
# The directory is recorded only when it is a system location: never one inside a source or
# build tree (those are build-machine paths; both this project's and, when we are a
# subproject, the parent's), and not when it is already on the implicit linker path. Packagers
# who register the directory with the loader another way turn this off.
option(TW_INSTALL_LIBLOG_RUNPATH
       "Record liblog's system directory in the installed library's RUNPATH" ON)
if(TW_HAVE_ANDROID_LOG AND NOT ANDROID AND TW_INSTALL_LIBLOG_RUNPATH)
  get_filename_component(_tw_liblog_dir "${TW_ANDROID_LOG_LIBRARY}" DIRECTORY)
  set(_tw_liblog_runpath ON)
  foreach(_tw_tree IN ITEMS "${PROJECT_SOURCE_DIR}" "${PROJECT_BINARY_DIR}" "${CMAKE_SOURCE_DIR}"
                            "${CMAKE_BINARY_DIR}")
    cmake_path(IS_PREFIX _tw_tree "${_tw_liblog_dir}" NORMALIZE _tw_inside)
    if(_tw_inside)
      message(WARNING "liblog (${TW_ANDROID_LOG_LIBRARY}) lies inside a source or build tree; "
                      "the installed library gets no RUNPATH for it and needs the loader set up")
      set(_tw_liblog_runpath OFF)
    endif()
  endforeach()
  if(_tw_liblog_dir IN_LIST CMAKE_C_IMPLICIT_LINK_DIRECTORIES)
    set(_tw_liblog_runpath OFF)
  endif()
  if(_tw_liblog_runpath)
    set_target_properties(tarnwick_upnp PROPERTIES INSTALL_RPATH "${_tw_liblog_dir}")
  endif()
endif()

# ---- Library and headers ---------------------------------------------------------------------
set_target_properties(tarnwick_upnp PROPERTIES EXPORT_NAME upnp)
install(TARGETS tarnwick_upnp EXPORT TarnwickUpnpTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime
                NAMELINK_COMPONENT Development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/tarnwick
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development
        FILES_MATCHING PATTERN "*.h")

# ---- Example programs and data files ---------------------------------------------------------
# The programs find the library relative to themselves, so the installed tree can move. Their
# only other run-time input is what the user points them at (the shared folder, the INI file).
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(_tw_exe_rpath "${CMAKE_INSTALL_LIBDIR}")
elseif(IS_ABSOLUTE "${CMAKE_INSTALL_BINDIR}")
  set(_tw_exe_rpath "${CMAKE_INSTALL_FULL_LIBDIR}")
else()
  file(RELATIVE_PATH _tw_bin_to_lib "/${CMAKE_INSTALL_BINDIR}" "/${CMAKE_INSTALL_LIBDIR}")
  set(_tw_exe_rpath "$ORIGIN/${_tw_bin_to_lib}")
endif()
foreach(_tw_exe IN ITEMS tarnwick_mediaserver tarnwick_config)
  if(TARGET ${_tw_exe})
    set_target_properties(${_tw_exe} PROPERTIES INSTALL_RPATH "${_tw_exe_rpath}")
    install(TARGETS ${_tw_exe} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)
  endif()
endforeach()

# Tables the library reads at run time live in resources/ and go to <datadir>/tarnwick.
if(IS_DIRECTORY ${PROJECT_SOURCE_DIR}/resources)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/resources/
          DESTINATION ${CMAKE_INSTALL_DATADIR}/tarnwick COMPONENT Runtime)
endif()

# ---- CMake package: find_package(TarnwickUpnp) -> Tarnwick::upnp -----------------------------
install(EXPORT TarnwickUpnpTargets NAMESPACE Tarnwick:: FILE TarnwickUpnpTargets.cmake
        DESTINATION ${TW_INSTALL_CMAKEDIR} COMPONENT Development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TarnwickUpnpConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/TarnwickUpnpConfig.cmake
                              INSTALL_DESTINATION ${TW_INSTALL_CMAKEDIR})
# Before 1.0 a minor release may change the API, so a request for 0.1 accepts 0.1.x only; patch
# releases keep the API. (From 1.0 on, SameMajorVersion becomes the right choice.)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TarnwickUpnpConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TarnwickUpnpConfig.cmake
              ${PROJECT_BINARY_DIR}/TarnwickUpnpConfigVersion.cmake
        DESTINATION ${TW_INSTALL_CMAKEDIR} COMPONENT Development)

# ---- pkg-config: tarnwick-upnp.pc ------------------------------------------------------------
# Directories are written relative to ${prefix} unless GNUInstallDirs was given absolute ones.
# The prefix itself is only known at install time (cmake --install --prefix overrides the one
# configured), so the file is written then; DESTDIR is not part of it, as staging requires.
foreach(_tw_kind IN ITEMS LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${_tw_kind}}")
    set(_tw_pc_${_tw_kind} "${CMAKE_INSTALL_${_tw_kind}}")
  elseif(_tw_kind STREQUAL "LIBDIR")
    set(_tw_pc_${_tw_kind} "\${exec_prefix}/${CMAKE_INSTALL_${_tw_kind}}")
  else()
    set(_tw_pc_${_tw_kind} "\${prefix}/${CMAKE_INSTALL_${_tw_kind}}")
  endif()
endforeach()
# Only a static link needs these; the shared library records its own dependencies.
set(_tw_pc_libs_private "-lpthread")
if(TW_HAVE_ANDROID_LOG)
  if(ANDROID)
    string(APPEND _tw_pc_libs_private " -llog")
  else()
    get_filename_component(_tw_liblog_dir "${TW_ANDROID_LOG_LIBRARY}" DIRECTORY)
    string(APPEND _tw_pc_libs_private " -L${_tw_liblog_dir} -llog")
  endif()
endif()
set(_tw_pc_out ${PROJECT_BINARY_DIR}/tarnwick-upnp.pc)
install(CODE "
set(TW_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
set(TW_PC_LIBDIR [[${_tw_pc_LIBDIR}]])
set(TW_PC_INCLUDEDIR [[${_tw_pc_INCLUDEDIR}]])
set(TW_PC_VERSION [[${PROJECT_VERSION}]])
set(TW_PC_LIBS_PRIVATE [[${_tw_pc_libs_private}]])
configure_file([[${CMAKE_CURRENT_LIST_DIR}/tarnwick-upnp.pc.in]] [[${_tw_pc_out}]] @ONLY)
" COMPONENT Development)
install(FILES ${_tw_pc_out} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)
