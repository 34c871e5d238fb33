# Run by CPack on the staged files, just before it packs them.

# The compiler's name and version are of no use to the program.
file(GLOB_RECURSE programs ${CPACK_TEMPORARY_DIRECTORY}/kelpwharf) # recursive globs name files, no folders
execute_process(COMMAND strip --remove-section=.comment ${programs} COMMAND_ERROR_IS_FATAL ANY)

# The same source makes the same package, whatever the packer's umask is and whenever he packs.
execute_process(COMMAND_ERROR_IS_FATAL ANY
    COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -type d -exec chmod 755 {} +)
if(DEFINED ENV{SOURCE_DATE_EPOCH})
    execute_process(COMMAND_ERROR_IS_FATAL ANY
        COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -exec touch --no-dereference --date=@$ENV{SOURCE_DATE_EPOCH} {} +)
endif()
