// The kinds of token the tokenizer cuts a document into. The parser reports its nodes in the
// same kinds (StartTagStart, EndTag, CharData, DocumentEnd), so a caller checks a node's kind
// against these values, and error messages print a kind by its name.
#pragma once

#include <string>

namespace zoxml {

enum class EToken : unsigned {
  Unknown = 0,
  DocumentStart = 1,
  DocumentEnd = 2,
  Error = 3,
  XmldeclStart = 4,
  XmldeclEnd = 5,
  DoctypeStart = 6,
  DoctypeEnd = 7,
  CommentStart = 8,
  CommentEnd = 9,
  PIStart = 10,
  PIEnd = 11,
  CDATAStart = 12,
  CDATAEnd = 13,
  StartTagStart = 14,
  StartTagEnd = 15,
  StartTagEndEmpty = 16,
  EndTag = 17,
  AttributeStart = 18,
  AttributeEnd = 19,
  CharData = 20,
  EntityRef = 21,
  CharRef = 22,
};

// "StartTagStart", ...; a number outside the enumeration as "##UNKNOWN(<number>)##".
std::string token_name(EToken kind);

}  // namespace zoxml
