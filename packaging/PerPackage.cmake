# Read by CPack once for each kind of package: what goes into it.
if(CPACK_GENERATOR STREQUAL "DEB")
    set(CPACK_COMPONENTS_ALL program debian)
else()
    # By components the files are packed in the order of their names, not in that of the disk.
    set(CPACK_COMPONENTS_ALL program notices)
    set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
    set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
endif()
