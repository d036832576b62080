# Warnings and sanitizers for everything; the kernel-safe dialect for driver code.
add_compile_options(-Wall -Wextra -Werror)

if(MVGPS_SANITIZE)
  string(REPLACE ";" "," _san "${MVGPS_SANITIZE}")
  add_compile_options(-fsanitize=${_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${_san})
endif()

# Driver code: C++17 with no exceptions, no RTTI and 2-byte wchar_t so that L"" literals have
# the layout of the target's WCHAR. The host exports the kernel and framework as extern "C",
# so its own translation units may keep the 4-byte wchar_t and see WCHAR as char16_t.
function(mvgps_driver_code target)
  set_target_properties(${target} PROPERTIES CXX_STANDARD 17)
  target_compile_options(${target} PRIVATE -fno-exceptions -fno-rtti -fshort-wchar)
  target_link_libraries(${target} PUBLIC mvgps_platform_headers)
endfunction()
