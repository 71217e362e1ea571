# CPack runs this between staging and packing: Debian wants these files compressed, and "cmake --install" does not
# compress them.
set(share ${CPACK_TEMPORARY_DIRECTORY}/usr/share)
file(GLOB pages ${share}/man/man[1-9]/*.[1-9])
execute_process(COMMAND gzip -9n ${share}/doc/halvo/changelog ${pages} COMMAND_ERROR_IS_FATAL ANY)
