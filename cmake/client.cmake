# What a client of somebody else's is built with: headers, one archive and its pkg-config file. The headers lie beside
# each other in include/tavirn, whatever their folders here.
foreach(header daemon/rtsp_request.h platform/output_layout.h platform/output_reader.h platform/paths.h
    platform/paths_rooted.h tools/client/control_client.h)
  get_filename_component(name ${header} NAME)
  file(READ ${header} text)
  string(REGEX REPLACE "#include \"[a-z_/]+/([a-z_]+[.]h)\"" "#include <tavirn/\\1>" text "${text}")
  file(WRITE ${PROJECT_BINARY_DIR}/client/tavirn/${name} "${text}")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
endforeach()

# Relative, so that the whole can be moved.
file(RELATIVE_PATH to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" to_prefix ${to_prefix})
configure_file(packaging/tavirn-client.pc.in client/tavirn-client.pc @ONLY)

install(DIRECTORY ${PROJECT_BINARY_DIR}/client/tavirn TYPE INCLUDE COMPONENT tavirn-dev)
install(TARGETS tavirn_client ARCHIVE COMPONENT tavirn-dev)
install(FILES ${PROJECT_BINARY_DIR}/client/tavirn-client.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT tavirn-dev)
file(GLOB pages CONFIGURE_DEPENDS docs/*.md)
install(FILES ${pages} docs/examples/count_pictures.cpp
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tavirn-dev COMPONENT tavirn-dev)
