# make uninstall: removes exactly the files and links that an install recorded
# in its manifest (under $DESTDIR when set), then the folders left empty by
# that, up to the install prefix (the folder all the entries share).
#   cmake -DMANIFEST=build/install_manifest.txt -P packaging/Uninstall.cmake

if(NOT EXISTS "${MANIFEST}")
    message(FATAL_ERROR "No install manifest at '${MANIFEST}': nothing was installed from this build")
endif()
file(STRINGS "${MANIFEST}" entries)
if(NOT entries)
    return()
endif()

list(GET entries 0 prefix)
cmake_path(GET prefix PARENT_PATH prefix)
foreach(entry IN LISTS entries)
    cmake_path(IS_PREFIX prefix "${entry}" NORMALIZE inside)
    while(NOT inside)
        cmake_path(GET prefix PARENT_PATH prefix)
        cmake_path(IS_PREFIX prefix "${entry}" NORMALIZE inside)
    endwhile()
endforeach()

set(folders)
foreach(entry IN LISTS entries)
    set(path "$ENV{DESTDIR}${entry}")
    if(EXISTS "${path}" OR IS_SYMLINK "${path}")
        message(STATUS "Removing: ${path}")
        file(REMOVE "${path}")
        if(EXISTS "${path}" OR IS_SYMLINK "${path}")
            message(FATAL_ERROR "Could not remove '${path}'")
        endif()
    else()
        message(STATUS "Not there: ${path}")
    endif()
    cmake_path(GET entry PARENT_PATH folder)
    list(APPEND folders "${folder}")
endforeach()

# rmdir takes only an empty folder; each walk up stops at the first that is not.
list(REMOVE_DUPLICATES folders)
foreach(folder IN LISTS folders)
    while(NOT folder STREQUAL prefix)
        execute_process(COMMAND rmdir "$ENV{DESTDIR}${folder}"
            RESULT_VARIABLE failed OUTPUT_QUIET ERROR_QUIET)
        if(failed)
            break()
        endif()
        cmake_path(GET folder PARENT_PATH folder)
    endwhile()
endforeach()
