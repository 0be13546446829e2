# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

# kelvo_embed(NAME FILE...) : makes a source with `extern const Embedded_text NAME` (tools/guide/embedded.h), the files
# one behind the other, and adds it to kelvo_tools. A page takes it by declaring that name.
set(KELVO_EMBED_SCRIPT "${CMAKE_CURRENT_LIST_FILE}")
function(kelvo_embed name)
  set(files)
  foreach(file IN LISTS ARGN)
    list(APPEND files "${CMAKE_CURRENT_SOURCE_DIR}/${file}")
  endforeach()
  set(out "${CMAKE_CURRENT_BINARY_DIR}/embedded/${name}.cpp")
  string(REPLACE ";" "|" list "${files}")
  add_custom_command(OUTPUT "${out}" VERBATIM
    COMMAND "${CMAKE_COMMAND}" "-DNAME=${name}" "-DFILES=${list}" "-DOUT=${out}" -P "${KELVO_EMBED_SCRIPT}"
    DEPENDS ${files} "${KELVO_EMBED_SCRIPT}")
  target_sources(kelvo_tools PRIVATE "${out}")
endfunction()

if(NOT CMAKE_SCRIPT_MODE_FILE)
  return()
endif()

string(REPLACE "|" ";" FILES "${FILES}")
set(text)
set(parts)
foreach(file IN LISTS FILES)
  file(READ "${file}" part)
  string(APPEND text "${part}")
  # A literal of its own for each file: compilers need not take more than 65,536 characters in one.
  string(APPEND parts "    std::string_view(R\"__embedded__(${part})__embedded__\"),\n")
endforeach()
string(SHA256 sha256 "${text}")
file(WRITE "${OUT}" "// Made by tools/guide/embed.cmake.
#include <string>

#include \"tools/guide/embedded.h\"

static const std::string& joined_${NAME}() {
  static const std::string joined = [] {
    std::string out;
    for (const std::string_view part : {
${parts}    }) {
      out += part;
    }
    return out;
  }();
  return joined;
}

extern const Embedded_text ${NAME};
const Embedded_text ${NAME}{joined_${NAME}(), \"${sha256}\"};
")
