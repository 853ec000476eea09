# Writes the datastore tool's manual page and shell completions from the built tool itself, so
# they list the commands and options the tool has, never a copy kept by hand.
#   cmake -DTOOL=<datastore> -DHELP2MAN=<help2man> -DSOURCE=<this folder> -DOUT=<folder> -P generate.cmake
execute_process(COMMAND ${TOOL} --completion-listing
    OUTPUT_VARIABLE listing RESULT_VARIABLE failed COMMAND_ERROR_IS_FATAL ANY)

# Completions: the listing goes into each script as data it walks at completion time.
foreach(pair "datastore.bash.in;datastore" "_datastore.zsh.in;_datastore")
    list(GET pair 0 template)
    list(GET pair 1 output)
    file(READ ${SOURCE}/${template} text)
    string(REPLACE "@DATASTORE_LISTING@" "${listing}" text "${text}")
    file(WRITE ${OUT}/${output} "${text}")
endforeach()

# Manual page: help2man reads 'datastore --help' and '--version'; every command's own --help
# follows in a COMMANDS section.
get_filename_component(tool_dir ${TOOL} DIRECTORY)
string(REPLACE "\n" ";" lines "${listing}")
set(commands "[COMMANDS]\n")
foreach(line IN LISTS lines)
    if(NOT line MATCHES "^command datastore/([^ ]+)")
        continue()
    endif()
    string(REPLACE "/" ";" words "${CMAKE_MATCH_1}")
    string(REPLACE ";" " " title "${words}")
    execute_process(COMMAND ${TOOL} ${words} --help
        OUTPUT_VARIABLE help COMMAND_ERROR_IS_FATAL ANY)
    # The default store folder is next to the program: say so rather than where it was built.
    string(REPLACE "${tool_dir}/" "<program folder>/" help "${help}")
    # roff: a backslash is \e, a line starting with a dot or a quote is protected with \&.
    string(REPLACE "\\" "\\e" help "${help}")
    string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" help "${help}")
    string(APPEND commands ".SS \"datastore ${title}\"\n.nf\n${help}.fi\n")
endforeach()
# Sections written by hand follow the commands.
file(READ ${SOURCE}/fleet.h2m fleet)
file(WRITE ${OUT}/commands.h2m "${commands}\n${fleet}")
execute_process(COMMAND ${HELP2MAN} --no-info --section=1 "--source=DataStore ${VERSION}"
        "--name=records and inspects the stores of the diagnostics suite"
        --include=${OUT}/commands.h2m --output=${OUT}/datastore.1 ${TOOL}
    COMMAND_ERROR_IS_FATAL ANY)
# Installed compressed, as manual pages are on Debian; -n keeps the name and time out of the
# header, so the same page gives the same bytes.
execute_process(COMMAND gzip -9 -n -f -k ${OUT}/datastore.1 COMMAND_ERROR_IS_FATAL ANY)
