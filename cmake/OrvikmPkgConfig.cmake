# orvikm_pkg_check_modules(<prefix> <module>)
# pkg_check_modules(<prefix> REQUIRED IMPORTED_TARGET <module>), with the
# imported target PkgConfig::<prefix> the same on every configure.
#
# libzmq's pkg-config data carries `-isystem /usr/include/mit-krb5`. The first
# configure of a build folder turns it into an include directory; every later
# one reads pkg-config's answer back from the cache, where it is still a
# compile option. The compile lines would change between the first and the
# second configure, and everything would be rebuilt. Moving each `-isystem`
# option into the include directories gives one answer whichever way the
# target was made.
include_guard(GLOBAL)
find_package(PkgConfig REQUIRED)

function(orvikm_pkg_check_modules prefix module)
    pkg_check_modules(${prefix} REQUIRED IMPORTED_TARGET ${module})
    set(target PkgConfig::${prefix})
    get_target_property(options ${target} INTERFACE_COMPILE_OPTIONS)
    get_target_property(dirs ${target} INTERFACE_INCLUDE_DIRECTORIES)
    if(NOT options)
        set(options "")
    endif()
    if(NOT dirs)
        set(dirs "")
    endif()
    set(kept "")
    set(next_is_dir FALSE)
    foreach(option IN LISTS options)
        if(next_is_dir)
            list(APPEND dirs "${option}")
            set(next_is_dir FALSE)
        elseif(option STREQUAL "-isystem")
            set(next_is_dir TRUE)
        elseif(option MATCHES "^-isystem(.+)$")
            list(APPEND dirs "${CMAKE_MATCH_1}")
        else()
            list(APPEND kept "${option}")
        endif()
    endforeach()
    list(REMOVE_DUPLICATES dirs)
    set_property(TARGET ${target} PROPERTY INTERFACE_COMPILE_OPTIONS "${kept}")
    set_property(TARGET ${target} PROPERTY INTERFACE_INCLUDE_DIRECTORIES "${dirs}")
endfunction()
