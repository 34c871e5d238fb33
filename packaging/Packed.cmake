# Run by CPack on the packages that it made. Into a .deb it writes a size that counts folders as large as
# the disk at hand makes them; here the .deb is packed anew with the size as Debian reckons it: started
# kilobytes of the files, and one for anything else.
foreach(package ${CPACK_PACKAGE_FILES})
    if(NOT package MATCHES "\\.deb$")
        continue()
    endif()
    set(tree ${package}.tree)
    execute_process(COMMAND_ERROR_IS_FATAL ANY
        COMMAND dpkg-deb --raw-extract ${package} ${tree})
    execute_process(COMMAND_ERROR_IS_FATAL ANY OUTPUT_VARIABLE kilobytes OUTPUT_STRIP_TRAILING_WHITESPACE
        COMMAND find ${tree}/usr -type f -printf "%s\\n" -o -printf "1024\\n"
        COMMAND awk "{ sum += int(($1 + 1023) / 1024) } END { print sum }")
    file(READ ${tree}/DEBIAN/control control)
    string(REGEX REPLACE "Installed-Size: [0-9]+" "Installed-Size: ${kilobytes}" control "${control}")
    file(WRITE ${tree}/DEBIAN/control "${control}")
    execute_process(COMMAND_ERROR_IS_FATAL ANY COMMAND chmod 755 ${tree}/DEBIAN)
    execute_process(COMMAND_ERROR_IS_FATAL ANY COMMAND chmod 644 ${tree}/DEBIAN/control ${tree}/DEBIAN/md5sums)
    execute_process(COMMAND_ERROR_IS_FATAL ANY
        COMMAND dpkg-deb -Zgzip --root-owner-group --build ${tree} ${package})
    file(REMOVE_RECURSE ${tree})
endforeach()
