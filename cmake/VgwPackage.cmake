# What an operator installs: the three programs, the systemd unit, an example
# configuration as /etc/vgw/vgw-agent.json, manual pages made from the
# programs' --help, and vgwctl's bash completion; and the Debian package of
# all of it (cpack -G DEB, which scripts/package runs).

# The agent is a system service: unless told otherwise it installs under /usr,
# as its package does, so that the unit, the binaries and the package agree.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Install prefix" FORCE)
endif()
include(GNUInstallDirs)

find_program(VGW_HELP2MAN help2man)
if(NOT VGW_HELP2MAN)
  message(FATAL_ERROR "help2man not found; scripts/install-deps installs it")
endif()

install(TARGETS vgw-agent vgwctl ringtape-dump RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The package always installs under /usr, whatever prefix an older build
# directory keeps; the unit names the agent where the package puts it.
set(VGW_PACKAGE_PREFIX /usr)
set(VGW_AGENT_BINARY ${VGW_PACKAGE_PREFIX}/${CMAKE_INSTALL_BINDIR}/vgw-agent)
configure_file(${PROJECT_SOURCE_DIR}/deploy/vgw-agent.service.in ${PROJECT_BINARY_DIR}/deploy/vgw-agent.service @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/deploy/vgw-agent.service DESTINATION lib/systemd/system)
install(FILES ${PROJECT_SOURCE_DIR}/examples/single-node.json DESTINATION /etc/vgw RENAME vgw-agent.json)

# Manual pages and the completion come from the built programs themselves,
# so they cannot drift from the command lines.
set(vgw_docs)
set(vgw-agent_name "the agent presenting a VXLAN fabric as hardware VTEPs to a network virtualization controller")
set(vgwctl_name "read, write and watch the state store of a running vgw-agent")
set(ringtape-dump_name "print the ring trace that vgw-agent keeps")
set(vgw-agent_help --help)
set(vgwctl_help --help-all)
set(ringtape-dump_help --help)
foreach(program vgw-agent vgwctl ringtape-dump)
  set(page ${PROJECT_BINARY_DIR}/man/${program}.1)
  add_custom_command(
    OUTPUT ${page}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND ${VGW_HELP2MAN} --no-info --no-discard-stderr --section=1
            --name=${${program}_name} --help-option=${${program}_help} --output=${page} $<TARGET_FILE:${program}>
    COMMAND gzip -9nf ${page}
    DEPENDS ${program}
    COMMENT "Manual page of ${program}"
    VERBATIM)
  list(APPEND vgw_docs ${page}.gz)
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endforeach()
set(vgw_completion ${PROJECT_BINARY_DIR}/completion/vgwctl)
add_custom_command(
  OUTPUT ${vgw_completion}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/completion
  COMMAND $<TARGET_FILE:vgwctl> --bash-completion > ${vgw_completion}
  DEPENDS vgwctl
  COMMENT "Bash completion of vgwctl"
  VERBATIM)
install(FILES ${vgw_completion} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
add_custom_target(vgw_docs ALL DEPENDS ${vgw_docs} ${vgw_completion})

# The configuration is the operator's: an upgrade keeps their edits.
file(WRITE ${PROJECT_BINARY_DIR}/deb/conffiles "/etc/vgw/vgw-agent.json\n")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vgw)
set(CPACK_PACKAGE_VENDOR "vgw")
set(CPACK_PACKAGE_CONTACT "vgw maintainers <vgw@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "agent presenting a VXLAN fabric as hardware VTEPs to a network virtualization controller")
set(CPACK_PACKAGING_INSTALL_PREFIX ${VGW_PACKAGE_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
# The libraries the programs link come from dpkg-shlibdeps; the Open vSwitch
# tools (ovsdb-client, ovs-appctl) are what an operator needs beside them.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "openvswitch-common")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "openvswitch-vtep")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/deb/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/package)
include(CPack)
