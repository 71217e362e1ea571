# The Debian package: cmake --build --preset release --target package.
# What belongs to the package alone is a component of its own, which "cmake --install" leaves out: it would write below
# /etc and /lib whatever its prefix, and over the operator's configuration.

set(CPACK_PACKAGE_CONTACT "The halvo authors <halvo@halvo.invalid>")
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(packaging/changelog.in ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog @ONLY)

# Installs the file under the path. More arguments are install()'s.
function(package_file file path)
  cmake_path(GET path PARENT_PATH directory)
  cmake_path(GET path FILENAME name)
  install(FILES ${file} DESTINATION ${directory} RENAME ${name} COMPONENT debian EXCLUDE_FROM_ALL ${ARGN})
endfunction()

set(doc share/doc/halvo)
package_file(packaging/halvo.conf /etc/config/halvo.conf)
package_file(packaging/needrestart.conf /etc/needrestart/conf.d/halvo.conf)
package_file(packaging/halvo.service /lib/systemd/system/halvo.service)
package_file(packaging/end-processes libexec/halvo/end-processes PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
package_file(packaging/modules-load.conf /usr/lib/modules-load.d/halvo.conf)
package_file(packaging/tmpfiles.conf /usr/lib/tmpfiles.d/halvo.conf)
package_file(packaging/completion.bash share/bash-completion/completions/halvo)
package_file(packaging/completion.bash share/bash-completion/completions/halvo-check)
package_file(packaging/lintian-overrides share/lintian/overrides/halvo)
package_file(packaging/copyright ${doc}/copyright)
package_file(${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog ${doc}/changelog)
package_file(CHANGELOG.md ${doc}/CHANGELOG.md)
package_file(docs/operating.md ${doc}/operating.md)
package_file(docs/troubleshooting.md ${doc}/troubleshooting.md)
package_file(config/halvo.conf ${doc}/examples/halvo.conf)

set(CPACK_GENERATOR DEB)
set(CPACK_INSTALL_CMAKE_PROJECTS
  "${CMAKE_BINARY_DIR};halvo;ALL;/;${CMAKE_BINARY_DIR};halvo;debian;/")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/compress.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# For pidof, which finds DAEMON and SYSTEM processes by name.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "sysvinit-utils (>= 3.06)")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Starts and watches up to 10 processes, samples the CPU and memory of the VM and
of each process, and when one is lost or crosses a limit does what is
configured: nothing, restart it, or let the hypervisor's watchdog take the VM
down so that a standby VM takes over. While all is well it sends a heartbeat to
a peer.")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
foreach(script IN ITEMS conffiles postinst prerm postrm)
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/${script})
endforeach()
include(CPack)
