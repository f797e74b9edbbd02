# Writes a header that holds a text file as a constant:
#   cmake -D INPUT=<file> -D OUTPUT=<header> -D NAME=<constant> -P embed.cmake
file(READ "${INPUT}" text)
string(FIND "${text}" ")embedded\"" delimiter)
if(NOT delimiter EQUAL -1)
  message(FATAL_ERROR "${INPUT} holds the delimiter of the text")
endif()
get_filename_component(file "${INPUT}" NAME)
file(WRITE "${OUTPUT}" "// Made from ${file} by the build.
#pragma once

inline constexpr char ${NAME}[] = R\"embedded(${text})embedded\";
")
