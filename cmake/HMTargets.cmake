# Target-scoped settings shared by every target the project builds.

set(HM_SANITIZER_FLAGS -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)

# Warnings as errors for our own code; third-party headers come in as SYSTEM.
function(hm_project_settings target)
    target_compile_features(${target} PUBLIC cxx_std_17)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
        -Wold-style-cast -Wcast-align -Woverloaded-virtual -Werror)
    target_compile_definitions(${target} PRIVATE QT_NO_KEYWORDS
        QT_NO_URL_CAST_FROM_STRING QT_USE_QSTRINGBUILDER)
    if(HM_SANITIZE)
        target_compile_options(${target} PRIVATE ${HM_SANITIZER_FLAGS})
        target_link_options(${target} PRIVATE -fsanitize=address,undefined)
    endif()
endfunction()

# The helper runs as root: harden it beyond the defaults.
function(hm_hardening target)
    target_compile_options(${target} PRIVATE -fstack-protector-strong -fstack-clash-protection
        -fcf-protection -fPIE -Wformat -Wformat-security)
    if(NOT HM_SANITIZE)
        target_compile_definitions(${target} PRIVATE _FORTIFY_SOURCE=2)
    endif()
    target_link_options(${target} PRIVATE -pie -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endfunction()

# One QtTest executable per component, registered with ctest under its class name.
#   hm_add_qtest(NAME HMErrorTest SOURCES HMErrorTest.cpp LIBS hmcore [WRAPPER cmd...]
#                [LABELS root] [TIMEOUT 120] [ENVIRONMENT K=V ...])
function(hm_add_qtest)
    cmake_parse_arguments(T "" "NAME;TIMEOUT" "SOURCES;LIBS;WRAPPER;LABELS;ENVIRONMENT" ${ARGN})
    add_executable(${T_NAME} ${T_SOURCES})
    hm_project_settings(${T_NAME})
    target_link_libraries(${T_NAME} PRIVATE Qt6::Test hmtestsupport ${T_LIBS})
    add_test(NAME ${T_NAME} COMMAND ${T_WRAPPER} $<TARGET_FILE:${T_NAME}>)
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 120)
    endif()
    set_tests_properties(${T_NAME} PROPERTIES TIMEOUT ${T_TIMEOUT}
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;HM_SOURCE_DIR=${PROJECT_SOURCE_DIR};HM_BUILD_DIR=${PROJECT_BINARY_DIR};${T_ENVIRONMENT}")
    if(T_LABELS)
        set_tests_properties(${T_NAME} PROPERTIES LABELS "${T_LABELS}")
    endif()
endfunction()
