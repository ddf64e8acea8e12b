#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zodigest/digest_sink.h>
#include <zodigest/error_codes.h>

namespace zodigest {
namespace {

struct Vector {
  char const* algorithm;  // null: the default
  std::string input;
  unsigned piece;  // written in pieces of this size
  char const* hex;
};

TEST(DigestSink, KnownVectors) {
  std::vector<Vector> const vectors = {
      {nullptr, "", 1, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {nullptr, "abc", 1, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"sha256", "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", 7,
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {"SHA-256", std::string(1000000, 'a'), 4096,
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
      {"SHA-512", "abc", 3,
       "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3"
       "feebbd454d4423643ce80e2a9ac94fa54ca49f"},
      {"SHA3-256", "abc", 2, "3a985da74fe225b2045c172d6bd390bd855f086e3e9d525b46bfe24511431532"},
      {"md5", "abc", 3, "900150983cd24fb0d6963f7d28e17f72"},
  };
  for (Vector const& v : vectors) {
    SCOPED_TRACE(v.algorithm ? v.algorithm : "default");
    auto sink = v.algorithm ? zocore::make_ref_counted<DigestSink>(v.algorithm)
                            : zocore::make_ref_counted<DigestSink>();
    for (std::size_t at = 0; at < v.input.size(); at += v.piece) {
      sink->write(v.input.data() + at,
                  unsigned(std::min<std::size_t>(v.piece, v.input.size() - at)));
    }
    EXPECT_EQ(sink->hex_digest(), v.hex);
    EXPECT_EQ(sink->digest().size(), sink->digest_size());
    EXPECT_EQ(sink->digest_size() * 2, std::string(v.hex).size());
  }
}

// The digest covers what was written so far; writing goes on after it, and reset() starts over.
TEST(DigestSink, DigestSoFarThenMore) {
  DigestSink sink;
  EXPECT_EQ(sink.algorithm(), "SHA2-256");
  sink.write("ab", 2);
  EXPECT_EQ(sink.hex_digest(), "fb8e20fc2e4c3f248c60c39bd652f3c1347298bb977b8b4d5903b85055620603");
  sink.write("c", 1);
  EXPECT_EQ(sink.hex_digest(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  std::vector<unsigned char> const bytes = sink.digest();
  EXPECT_EQ(bytes.front(), 0xba);
  EXPECT_EQ(bytes.back(), 0xad);
  sink.reset();
  EXPECT_EQ(sink.hex_digest(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(DigestSink, UnknownAlgorithm) {
  zotest::ErrorPtr const info = ZO_EXPECT_ERROR(DigestSink("SHA-999"), error::zodigest_algorithm,
                                                "Unknown digest algorithm.  Name={@name}");
  EXPECT_EQ(zotest::param(info, "name"), "SHA-999");
  EXPECT_EQ(info ? std::string(info->location().function().view()) : "",
            "zodigest::DigestSink::DigestSink()");
  EXPECT_TRUE(error::zodigest_algorithm.is_a(error::zodigest));
  EXPECT_EQ(error::zodigest_openssl.parent(), error::zodigest);
}

}  // namespace
}  // namespace zodigest
