// Text as the diagnostics' file formats take it.
#pragma once

#include <string>
#include <string_view>

// text as a JSON string, quotes included: '"', '\\' and control bytes
// escaped; bytes that are not UTF-8 become U+FFFD, so the document stays
// valid whatever a name holds.
std::string diag_json_quoted(std::string_view text);

// text for an XML document's text or attribute values: '&', '<', '>' and
// '"' as entities, control bytes and bytes that are not UTF-8 as U+FFFD.
std::string diag_xml_escaped(std::string_view text);
