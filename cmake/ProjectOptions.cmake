# Compiler settings of every target of the project: warnings, sanitizers, Qt's own restrictions.

option(TARN_WARNINGS_AS_ERRORS "Fail the build on any warning" OFF)
option(TARN_SANITIZE "Build with the address and undefined-behaviour sanitizers" OFF)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release)
endif()

add_library(tarn-options INTERFACE)
target_include_directories(tarn-options INTERFACE ${PROJECT_SOURCE_DIR}/src)
target_compile_options(tarn-options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wold-style-cast -Wnon-virtual-dtor
    -Woverloaded-virtual)
if(TARN_WARNINGS_AS_ERRORS)
    target_compile_options(tarn-options INTERFACE -Werror)
endif()
if(TARN_SANITIZE)
    target_compile_options(tarn-options INTERFACE
        -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(tarn-options INTERFACE -fsanitize=address,undefined)
endif()
# Text and bytes are converted where the code says so, and nowhere else.
target_compile_definitions(tarn-options INTERFACE
    QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII QT_NO_CAST_FROM_BYTEARRAY QT_NO_URL_CAST_FROM_STRING
    QT_NO_KEYWORDS QT_NO_FOREACH QT_DISABLE_DEPRECATED_BEFORE=0x060400)
