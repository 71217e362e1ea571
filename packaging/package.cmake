# The Debian package: cmake --build --preset release --target package. The files of the package alone form a component
# of their own, which "cmake --install" leaves out: it would write them below /etc and /lib whatever its prefix, and
# overwrite the operator's configuration.

# The contact for the package's users. A package for release needs a real one.
set(HALVO_MAINTAINER "" CACHE STRING "The package's maintainer: NAME <ADDRESS>")
option(HALVO_RELEASE "The package is for release" OFF)
set(CPACK_PACKAGE_CONTACT "${HALVO_MAINTAINER}")
if(NOT HALVO_RELEASE AND HALVO_MAINTAINER STREQUAL "")
  set(CPACK_PACKAGE_CONTACT "Not for release <nobody@example.org>")
elseif(NOT HALVO_MAINTAINER MATCHES "^[^<>@]+ <[^<>@ ]+@[A-Za-z0-9.-]+\\.[A-Za-z]+>$" OR
    HALVO_MAINTAINER MATCHES "[.@](example|example\\.(com|net|org)|invalid|localdomain|localhost|test)>$")
  message(FATAL_ERROR "HALVO_MAINTAINER is \"${HALVO_MAINTAINER}\"; a package needs a NAME <ADDRESS> that takes mail")
endif()

# If SOURCE_DATE_EPOCH is set, CMake and CPack take the date from it.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(packaging/changelog.in ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog @ONLY)

# Installs the file at the path. Further arguments go to install().
function(package_file file path)
  cmake_path(GET path PARENT_PATH directory)
  cmake_path(GET path FILENAME name)
  install(FILES ${file} DESTINATION ${directory} RENAME ${name} COMPONENT debian EXCLUDE_FROM_ALL ${ARGN})
endfunction()

set(doc share/doc/halvo)
package_file(packaging/halvo.conf /etc/config/halvo.conf)
package_file(packaging/needrestart.conf /etc/needrestart/conf.d/halvo.conf)
package_file(packaging/halvo.service /lib/systemd/system/halvo.service)
package_file(packaging/halvo-peer.service /lib/systemd/system/halvo-peer.service)
package_file(packaging/halvo-metrics.service /lib/systemd/system/halvo-metrics.service)
package_file(packaging/halvo-metrics.timer /lib/systemd/system/halvo-metrics.timer)
foreach(helper IN ITEMS configuration end-processes)
  package_file(packaging/${helper} libexec/halvo/${helper} PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()
package_file(packaging/modules-load.conf /usr/lib/modules-load.d/halvo.conf)
package_file(packaging/tmpfiles.conf /usr/lib/tmpfiles.d/halvo.conf)
package_file(packaging/completion.bash share/bash-completion/completions/halvo)
package_file(packaging/completion.bash share/bash-completion/completions/halvo-check)
package_file(packaging/completion.bash share/bash-completion/completions/halvo-peer)
package_file(packaging/completion.bash share/bash-completion/completions/halvo-status)
package_file(packaging/lintian-overrides share/lintian/overrides/halvo)
package_file(packaging/copyright ${doc}/copyright)
package_file(${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog ${doc}/changelog)
package_file(CHANGELOG.md ${doc}/CHANGELOG.md)
foreach(page IN ITEMS fleet operating pair-and-host troubleshooting)
  package_file(docs/${page}.md ${doc}/${page}.md)
endforeach()
package_file(config/halvo.conf ${doc}/examples/halvo.conf)
foreach(example IN ITEMS halvo-failed.service halvo-log-hook.service on-failure.conf stay-out-after-reset.conf)
  package_file(examples/${example} ${doc}/examples/${example})
endforeach()
foreach(picture IN ITEMS fleet-before fleet-after)
  package_file(docs/${picture}.png ${doc}/${picture}.png)
endforeach()
foreach(example IN ITEMS halvo.html halvo.rules.yml icinga.conf sudoers)
  package_file(fleet/${example} ${doc}/examples/fleet/${example})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_INSTALL_CMAKE_PROJECTS
  "${CMAKE_BINARY_DIR};halvo;ALL;/;${CMAKE_BINARY_DIR};halvo;debian;/")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# The symbols go into a package of their own, below /usr/lib/debug/.build-id, where gdb looks for them.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
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
a peer, where halvo-peer hears it.")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
foreach(script IN ITEMS conffiles postinst prerm postrm)
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/${script})
endforeach()
include(CPack)
