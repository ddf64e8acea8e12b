#include <zoxml/token.h>

namespace zoxml {

std::string token_name(EToken kind) {
  static constexpr char const* kNames[] = {
      "Unknown",          "DocumentStart", "DocumentEnd",    "Error",
      "XmldeclStart",     "XmldeclEnd",    "DoctypeStart",   "DoctypeEnd",
      "CommentStart",     "CommentEnd",    "PIStart",        "PIEnd",
      "CDATAStart",       "CDATAEnd",      "StartTagStart",  "StartTagEnd",
      "StartTagEndEmpty", "EndTag",        "AttributeStart", "AttributeEnd",
      "CharData",         "EntityRef",     "CharRef"};
  auto const index = static_cast<unsigned>(kind);
  if (index < sizeof kNames / sizeof kNames[0]) return kNames[index];
  return "##UNKNOWN(" + std::to_string(index) + ")##";
}

}  // namespace zoxml
