# Puts the libraries that programs need at run time into the build's folders of programs: Windows
# looks for them beside a program, and tests start programs without this environment's paths.

file(GLOB libraries "${KY_WINDOWS_PREFIX}/bin/*.dll")
foreach(name libgcc_s_seh-1.dll libstdc++-6.dll libwinpthread-1.dll)
    execute_process(
        COMMAND "${CMAKE_CXX_COMPILER}" -print-file-name=${name}
        OUTPUT_VARIABLE library OUTPUT_STRIP_TRAILING_WHITESPACE)
    list(APPEND libraries "${library}")
endforeach()

foreach(folder bin tests tests/children)
    file(MAKE_DIRECTORY "${CMAKE_BINARY_DIR}/${folder}")
    foreach(library ${libraries})
        get_filename_component(name "${library}" NAME)
        file(CREATE_LINK "${library}" "${CMAKE_BINARY_DIR}/${folder}/${name}" SYMBOLIC)
    endforeach()
endforeach()
