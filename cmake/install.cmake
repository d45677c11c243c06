# cmake --install and cpack. Four packages: what needs GStreamer, the recorder's stand-in and the RTSP server, goes
# apart, and so does what only a developer wants.
include(GNUInstallDirs)

set(packaging ${PROJECT_SOURCE_DIR}/packaging)
install(TARGETS tavirn DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT tavirn)
install(FILES ${packaging}/tavirn.service DESTINATION lib/systemd/system COMPONENT tavirn)
install(PROGRAMS ${packaging}/tavirn.init DESTINATION ${CMAKE_INSTALL_DATADIR}/tavirn COMPONENT tavirn)

find_program(GZIP gzip REQUIRED)
# tavirn_man_page(<page> <component>): docs/man/<page>, compressed.
function(tavirn_man_page page component)
  set(source ${PROJECT_SOURCE_DIR}/docs/man/${page})
  set(compressed ${PROJECT_BINARY_DIR}/man/${page}.gz)
  add_custom_command(OUTPUT ${compressed} DEPENDS ${source} VERBATIM
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND ${GZIP} -9nc ${source} > ${compressed})
  add_custom_target(man-${page} ALL DEPENDS ${compressed})
  string(REGEX MATCH "[0-9]$" section ${page})
  install(FILES ${compressed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endfunction()

# tavirn_completion(<program> <component>): found by the program's name; the same text for each.
function(tavirn_completion program component)
  install(FILES ${packaging}/tavirn.bash-completion RENAME ${program}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT ${component})
endfunction()

tavirn_man_page(tavirn.8 tavirn)
# For an ordinary user of an ordinary PC, so not among the system's programs.
install(TARGETS tavirn-rooted DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tavirn)
tavirn_man_page(tavirn-rooted.8 tavirn)
tavirn_completion(tavirn-rooted tavirn)
set(components tavirn)
foreach(tool tavirn-ctl tavirn-view tavirn-record)
  if(TARGET ${tool})
    set(component tavirn)
    if(tool STREQUAL "tavirn-record")
      set(component tavirn-record)
      list(APPEND components tavirn-record)
    endif()
    install(TARGETS ${tool} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${component})
    tavirn_man_page(${tool}.1 ${component})
    tavirn_completion(${tool} ${component})
    if(TAVIRN_TESTS AND NOT CMAKE_CROSSCOMPILING)
      add_test(NAME man.${tool} COMMAND ${PROJECT_SOURCE_DIR}/docs/man/check
        ${PROJECT_SOURCE_DIR}/docs/man/${tool}.1 $<TARGET_FILE:${tool}>)
    endif()
  endif()
endforeach()
if(TAVIRN_TESTS)
  add_test(NAME man.tavirn COMMAND ${PROJECT_SOURCE_DIR}/docs/man/check ${PROJECT_SOURCE_DIR}/docs/man/tavirn.8)
  if(NOT CMAKE_CROSSCOMPILING)
    add_test(NAME man.tavirn-rooted COMMAND ${PROJECT_SOURCE_DIR}/docs/man/check
      ${PROJECT_SOURCE_DIR}/docs/man/tavirn-rooted.8 $<TARGET_FILE:tavirn-rooted>)
  endif()
endif()

if(TARGET tavirn-rtsp)
  install(TARGETS tavirn-rtsp DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT tavirn-rtsp)
  install(FILES ${packaging}/tavirn-rtsp.service DESTINATION lib/systemd/system COMPONENT tavirn-rtsp)
  tavirn_man_page(tavirn-rtsp.8 tavirn-rtsp)
  tavirn_completion(tavirn-rtsp tavirn-rtsp)
  list(APPEND components tavirn-rtsp)
  if(TAVIRN_TESTS AND NOT CMAKE_CROSSCOMPILING)
    add_test(NAME man.tavirn-rtsp COMMAND ${PROJECT_SOURCE_DIR}/docs/man/check
      ${PROJECT_SOURCE_DIR}/docs/man/tavirn-rtsp.8 $<TARGET_FILE:tavirn-rtsp>)
  endif()
endif()

if(TARGET tavirn_client)
  include(cmake/client.cmake)
  list(APPEND components tavirn-dev)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavirn)
set(CPACK_PACKAGE_VENDOR tavirn)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The tavirn developers <tavirn@example.org>")
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_TAVIRN_PACKAGE_NAME tavirn)
set(CPACK_DEBIAN_TAVIRN_PACKAGE_CONTROL_EXTRA
  ${packaging}/debian/postinst ${packaging}/debian/prerm ${packaging}/debian/postrm)
set(CPACK_DEBIAN_TAVIRN-RECORD_PACKAGE_NAME tavirn-record)
set(CPACK_DEBIAN_TAVIRN-RECORD_PACKAGE_RECOMMENDS
  "gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad, gstreamer1.0-plugins-ugly, gstreamer1.0-libav, gstreamer1.0-x")
set(CPACK_DEBIAN_TAVIRN-RECORD_PACKAGE_SUGGESTS tavirn)
set(CPACK_DEBIAN_TAVIRN-RTSP_PACKAGE_NAME tavirn-rtsp)
set(CPACK_DEBIAN_TAVIRN-RTSP_PACKAGE_DEPENDS passwd)
set(CPACK_DEBIAN_TAVIRN-RTSP_PACKAGE_RECOMMENDS "tavirn, glib-networking")
set(CPACK_DEBIAN_TAVIRN-RTSP_PACKAGE_CONTROL_EXTRA ${packaging}/debian-rtsp/postinst
  ${packaging}/debian-rtsp/prerm ${packaging}/debian-rtsp/postrm)
set(CPACK_DEBIAN_TAVIRN-DEV_PACKAGE_NAME tavirn-dev)
set(CPACK_DEBIAN_TAVIRN-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TAVIRN-DEV_PACKAGE_SUGGESTS "tavirn, pkg-config")
set(CPACK_COMPONENT_TAVIRN_DESCRIPTION "playback daemon for recorded video
Moves through the H.264 recording on a camera's card as the RTSP server
beside it asks, and delivers picture after picture into shared memory.
With tavirn-ctl, which sends it requests, tavirn-view, which reads the
pictures, and tavirn-rooted, the daemon in a directory of its own.")
set(CPACK_COMPONENT_TAVIRN-RECORD_DESCRIPTION "recorder stand-in for the playback daemon tavirn
Writes a video file or a test pattern to a card and its index as the
recorder of a camera would, for tavirn to play.")
set(CPACK_COMPONENT_TAVIRN-RTSP_DESCRIPTION "RTSP server for the playback daemon tavirn
Lets any RTSP player show the recording: from a clock time, fast, slowly,
backward, and along the live edge; with digest authentication, TLS and the
headers of ONVIF replay.")
set(CPACK_COMPONENT_TAVIRN-DEV_DESCRIPTION "client library of the playback daemon tavirn
For whoever writes an RTSP server or a viewer of their own: requests to
the daemon, and the pictures from its output memory. Headers, a static
library, the documents and an example.")
include(CPack)
