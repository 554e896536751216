# Settings shared by every target of the project: warnings, sanitizers and the
# shared-library naming that gives each library its fixed SONAME.

add_library(orvikm_build_flags INTERFACE)
target_compile_options(orvikm_build_flags INTERFACE -Wall -Wextra -Wpedantic)
if(ORVIKM_WERROR)
    target_compile_options(orvikm_build_flags INTERFACE -Werror)
endif()
if(ORVIKM_SANITIZE)
    target_compile_options(orvikm_build_flags INTERFACE
        -fsanitize=${ORVIKM_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(orvikm_build_flags INTERFACE -fsanitize=${ORVIKM_SANITIZE})
    # g++'s instrumentation makes -Wmaybe-uninitialized report reads that
    # cannot happen (hundreds of lines from <regex> and std::function alone).
    # The uninstrumented build keeps the warning for every file.
    target_compile_options(orvikm_build_flags INTERFACE
        $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()
install(TARGETS orvikm_build_flags EXPORT orvikmTargets)

# orvikm_library(<target> <output-name>)
# Names the shared library lib<output-name>.so.<version> with the SONAME
# lib<output-name>.so.0, and exports it as orvikm::<target>.
function(orvikm_library target output_name)
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME ${output_name}
        VERSION ${PROJECT_VERSION}
        SOVERSION 0
        EXPORT_NAME ${target})
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:orvikm_build_flags>)
    # A library's calls to its own functions may be inlined and bound within
    # it: nobody is to replace a function of these libraries by preloading
    # another, and without the option g++ may inline none of them, from the
    # client's loop down to the watch table's hashing.
    target_compile_options(${target} PRIVATE -fno-semantic-interposition)
    target_compile_features(${target} PUBLIC cxx_std_17)
    add_library(orvikm::${target} ALIAS ${target})
endfunction()
