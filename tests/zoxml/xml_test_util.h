// Helpers of the zoxml tests: documents read from memory in blocks of a chosen size, a compact
// text form of the nodes a parser hands out, and checks of the parser's located errors.
#pragma once

#include <sstream>
#include <string>
#include <string_view>

#include <support/error_matchers.h>
#include <zoxml/errors.h>
#include <zoxml/reader.h>

namespace zotest {

// Parses to the end and returns the nodes: <{ns}name a="v"> for a start tag (with
// "/" before ">" for an empty-element tag), </name>, "text" for character data read whole,
// ~"text" for a white-space node, a leading "p" on text under xml:space="preserve". Line feeds
// print as \n. Values are read whole, or through the value stream in pieces of `piece` bytes.
inline std::string trace(zoxml::XmlReader& parser, unsigned piece = 0) {
  std::string out;
  auto const quoted = [&out](std::string_view text) {
    out += '"';
    for (char const c : text) {
      if (c == '\n')
        out += "\\n";
      else
        out += c;
    }
    out += '"';
  };
  while (parser.read_next()) {
    auto const& node = parser.node();
    switch (node.kind()) {
      case zoxml::EToken::StartTagStart:
        out += '<';
        if (!node.namespace_uri().empty()) out += "{" + std::string(node.namespace_uri()) + "}";
        out += node.qname();
        for (auto const& a : node.attributes()) {
          out += ' ';
          if (!a.namespace_uri().empty()) out += "{" + std::string(a.namespace_uri()) + "}";
          out += std::string(a.qname()) + "=";
          quoted(a.value());
        }
        out += node.is_empty_element() ? "/>" : ">";
        break;
      case zoxml::EToken::EndTag:
        out += "</" + std::string(node.qname()) + ">";
        break;
      default:
        if (node.preserve_space()) out += 'p';
        if (node.is_whitespace()) out += '~';
        if (piece == 0) {
          quoted(parser.read_value_into_buffer());
          break;
        }
        std::string value;
        char buffer[64];
        for (unsigned n; (n = parser.value_stream().read(buffer, piece)) != 0;)
          value.append(buffer, n);
        quoted(value);
        break;
    }
  }
  return out;
}

// "name=value;name=value" of the parameters listed ("name;name" or "name=...;name=..."), in
// that order.
inline std::string params_of(ErrorPtr const& info, std::string_view names) {
  std::string out;
  std::istringstream in{std::string(names)};
  for (std::string name; std::getline(in, name, ';');) {
    name = name.substr(0, name.find('='));
    if (!out.empty()) out += ';';
    out += name + "=" + param(info, name);
  }
  return out;
}

// "line=L;linePos=P;sourcePos=S" from "L;P;S".
inline std::string location_params(std::string_view at) {
  std::size_t const a = at.find(';');
  std::size_t const b = at.rfind(';');
  return "line=" + std::string(at.substr(0, a)) +
         ";linePos=" + std::string(at.substr(a + 1, b - a - 1)) +
         ";sourcePos=" + std::string(at.substr(b + 1));
}

}  // namespace zotest
