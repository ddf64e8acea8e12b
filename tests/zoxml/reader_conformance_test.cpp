// The W3C XML Conformance Test Suite cases of tests/data/xmlconf (James Clark's xmltest and the
// Edinburgh namespace tests). In scope, every not-wf case must fail with a zoxml error and
// every valid or invalid (well-formed) case must parse, to the canonical output of the suite
// where it has one; out-of-scope.txt lists the others with the reason each.

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <zocore/error_exception.h>
#include <zoxml/errors.h>
#include <zoxml/reader.h>

namespace {

namespace fs = std::filesystem;
using zoxml::EToken;

fs::path const kRoot = ZOXML_CONFORMANCE_DIR;

struct Case {
  std::string id;
  std::string type;
  fs::path file;
};

std::string read_file(fs::path const& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The cases an index file lists, read with the parser itself.
void load_index(fs::path const& index, std::vector<Case>& cases) {
  std::ifstream in(index, std::ios::binary);
  zoxml::XmlReader parser(in, index.string());
  while (parser.read_next()) {
    auto const& node = parser.node();
    if (node.kind() != EToken::StartTagStart || node.local_name() != "TEST") continue;
    auto const attribute = [&node](char const* name) {
      auto const* a = node.find_attribute(name);
      return a ? std::string(a->value()) : std::string();
    };
    cases.push_back({attribute("ID"), attribute("TYPE"), index.parent_path() / attribute("URI")});
  }
}

// Test ID to the reasons out-of-scope.txt gives for it.
std::map<std::string, std::set<std::string>> load_listing() {
  std::map<std::string, std::set<std::string>> listing;
  std::istringstream in(read_file(kRoot / "out-of-scope.txt"));
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string id;
    std::string reason;
    fields >> id >> reason;
    listing[id].insert(reason);
  }
  return listing;
}

// The document with the line ends before its root element turned into line feeds.
std::string prolog_to_lf(std::string const& doc) {
  std::size_t i = 0;
  while (i < doc.size()) {
    auto const skip_past = [&](char const* end) {
      std::size_t const at = doc.find(end, i);
      i = at == std::string::npos ? doc.size() : at + std::strlen(end);
    };
    if (doc.compare(i, 4, "<!--") == 0) {
      skip_past("-->");
    } else if (doc.compare(i, 2, "<?") == 0) {
      skip_past("?>");
    } else if (doc.compare(i, 9, "<!DOCTYPE") == 0) {
      int depth = 0;
      char quote = 0;
      for (; i < doc.size(); ++i) {
        char const c = doc[i];
        if (quote) {
          if (c == quote) quote = 0;
        } else if (c == '"' || c == '\'') {
          quote = c;
        } else if (c == '[' || c == ']') {
          depth += c == '[' ? 1 : -1;
        } else if (c == '>' && depth == 0) {
          break;
        }
      }
      ++i;
    } else if (doc[i] == '<') {
      break;
    } else {
      ++i;
    }
  }
  std::string prolog;
  for (std::size_t k = 0; k < i && k < doc.size(); ++k) {
    if (doc[k] != '\r') {
      prolog += doc[k];
    } else if (k + 1 == doc.size() || doc[k + 1] != '\n') {
      prolog += '\n';
    }
  }
  return prolog + doc.substr(std::min(i, doc.size()));
}

// James Clark's canonical form of the suite's out/ files: attributes sorted, "&<>\"" and tab,
// line feed, carriage return escaped; no comments, declarations or processing instructions.
void escape(std::string& out, std::string_view text) {
  for (char const c : text) {
    std::size_t const at = std::string_view("&<>\"\t\n\r").find(c);
    char const* const escapes[] = {"&amp;", "&lt;", "&gt;", "&quot;", "&#9;", "&#10;", "&#13;"};
    at == std::string_view::npos ? void(out += c) : void(out += escapes[at]);
  }
}

struct Outcome {
  bool ok = false;
  std::string text;  // the canonical form, or the error message

  friend bool operator==(Outcome const&, Outcome const&) = default;
};

Outcome run(std::string const& doc, std::size_t block) {
  std::istringstream in(doc);
  zoxml::XmlReader parser(in, "", block);
  Outcome outcome;
  try {
    while (parser.read_next()) {
      auto const& node = parser.node();
      if (node.kind() == EToken::StartTagStart) {
        outcome.text += "<" + std::string(node.qname());
        std::vector<std::pair<std::string_view, std::string_view>> attributes;
        for (auto const& a : node.attributes())
          attributes.emplace_back(a.qname(), a.value());
        std::sort(attributes.begin(), attributes.end());
        for (auto const& [name, value] : attributes) {
          outcome.text += " " + std::string(name) + "=\"";
          escape(outcome.text, value);
          outcome.text += '"';
        }
        outcome.text += '>';
      } else if (node.kind() == EToken::EndTag) {
        outcome.text += "</" + std::string(node.qname()) + ">";
      } else {
        escape(outcome.text, parser.read_value_into_buffer());
      }
    }
    outcome.ok = true;
  } catch (zocore::ErrorException const& e) {
    EXPECT_TRUE(e.info()->code().is_a(zoxml::error::zoxml)) << e.what();
    outcome.text = e.what();
  }
  return outcome;
}

TEST(XmlReaderConformanceTest, W3CSuite) {
  auto const listing = load_listing();
  std::vector<Case> cases;
  for (char const* index :
       {"xmltest/xmltest.xml", "eduni/namespaces/1.0/rmt-ns10.xml",
        "eduni/namespaces/1.1/rmt-ns11.xml", "eduni/namespaces/errata-1e/errata1e.xml"}) {
    load_index(kRoot / index, cases);
  }
  ASSERT_EQ(cases.size(), 425u);
  std::set<std::string> ids;
  for (Case const& c : cases)
    ids.insert(c.id);
  for (auto const& [id, reasons] : listing)
    EXPECT_TRUE(ids.count(id)) << id << " is listed but not in the suite";

  // Reasons for which the listing claims the case does not conform; checked, so that a case the
  // parser has come to handle does not stay listed.
  std::set<std::string> const not_conforming = {"char-ref", "dtd", "namespaces", "utf-16"};
  std::size_t in_scope = 0;
  std::size_t passed = 0;
  std::size_t crlf = 0;
  std::size_t crlf_passed = 0;
  for (Case const& c : cases) {
    SCOPED_TRACE(c.id + " " + c.file.string());
    std::string const doc = read_file(c.file);
    auto const found = listing.find(c.id);
    std::set<std::string> const reasons =
        found == listing.end() ? std::set<std::string>() : found->second;
    Outcome const outcome = run(doc, zoxml::XmlReader::kDefaultBlockSize);
    EXPECT_EQ(run(doc, 3), outcome) << "the outcome depends on the block size";
    bool const well_formed = c.type == "valid" || c.type == "invalid";
    std::string const converted = prolog_to_lf(doc);
    auto const conforms = [&](Outcome const& result, std::string const& source) {
      if (!well_formed) return !result.ok && (source == converted || !run(converted, 4096).ok);
      if (!result.ok) return false;
      fs::path const expected = c.file.parent_path() / "out" / c.file.filename();
      if (reasons.count("output-dtd") || reasons.count("output-PI") || !fs::exists(expected)) {
        return true;
      }
      return result.text == read_file(expected);
    };
    if (reasons.count("prolog-crlf")) {
      ++crlf;
      EXPECT_FALSE(outcome.ok);
      EXPECT_NE(outcome.text.find("Unexpected non-whitespace content"), std::string::npos);
      if (conforms(run(converted, 4096), converted)) {
        ++crlf_passed;
      } else {
        ADD_FAILURE() << "does not conform with its prolog line ends turned into LF";
      }
      continue;
    }
    bool const listed = std::any_of(reasons.begin(), reasons.end(),
                                    [](std::string const& r) { return !r.starts_with("output-"); });
    if (listed) {
      bool const claimed = std::any_of(reasons.begin(), reasons.end(), [&](std::string const& r) {
        return not_conforming.count(r) != 0;
      });
      if (claimed) {
        EXPECT_FALSE(conforms(outcome, doc)) << "listed, but conforms";
      }
      continue;
    }
    ++in_scope;
    if (conforms(outcome, doc)) {
      ++passed;
    } else {
      ADD_FAILURE() << c.type << " case: " << (outcome.ok ? "parsed to " : "") << outcome.text;
    }
  }
  std::cout << "W3C cases in scope: " << in_scope << ", passed: " << passed
            << "; out of scope for CR LF before the root: " << crlf
            << ", passed with LF there: " << crlf_passed << "\n";
  EXPECT_EQ(passed, in_scope);
}

}  // namespace
