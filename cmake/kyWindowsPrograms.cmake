# Gives every program the manifest that makes UTF-8 its code page.

enable_language(RC)
add_library(kyProgramManifest OBJECT "${CMAKE_CURRENT_LIST_DIR}/kyProgram.rc")
# The compiler's warnings mean nothing to the compiler of resources.
set_target_properties(kyProgramManifest PROPERTIES COMPILE_OPTIONS "")
link_libraries(
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:$<TARGET_OBJECTS:kyProgramManifest>>)
