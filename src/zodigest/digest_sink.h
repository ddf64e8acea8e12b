// A hash sink over OpenSSL's message digests.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <zocore/atomic_ref_count.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>
#include <zodigest/export.h>

// OpenSSL's types, declared here so that users of this header need not see OpenSSL's.
struct evp_md_st;
struct evp_md_ctx_st;

namespace zodigest {

// DigestSink is an IWriteStream that digests everything written to it: hand it to a
// zoserialize::HashingWriterAdapter or HashingReaderAdapter (wrapped in an InterfacePtr) and
// read the digest when the adapter is closed. Any digest that OpenSSL's EVP interface knows can
// be chosen by name ("SHA-256", the default, "SHA-512", "SHA3-256", "BLAKE2B-512", ...);
// extendable-output digests give their default length.
//
// digest() and hex_digest() cover the bytes written so far and may be asked at any time; writing
// can go on afterwards. Writes cost what OpenSSL's update costs; there is no buffering of its
// own. Create it with zocore::make_ref_counted<DigestSink>(...). One thread at a time.
class ZODIGEST_API DigestSink final : public zocore::RefCounted<zocore::AtomicRefCount>,
                                      public zocore::IWriteStream {
 public:
  static constexpr char kDefaultAlgorithm[] = "SHA-256";

  // SHA-256.
  DigestSink();
  // Fails with error::zodigest_algorithm when OpenSSL has no digest named `algorithm`
  // (case-insensitive; OpenSSL's aliases such as "SHA256" are accepted).
  explicit DigestSink(std::string_view algorithm);
  DigestSink(DigestSink const&) = delete;
  DigestSink& operator=(DigestSink const&) = delete;
  ~DigestSink() override;

  void write(void const* data, unsigned size) override;

  // OpenSSL's canonical name of the digest, for example "SHA2-256".
  std::string algorithm() const;
  // Length of the digest in bytes.
  unsigned digest_size() const;
  // The digest of everything written so far.
  std::vector<unsigned char> digest() const;
  // The same as lowercase hex digits.
  std::string hex_digest() const;
  // Forgets everything written: the sink starts over.
  void reset();

 private:
  evp_md_st* md_ = nullptr;
  evp_md_ctx_st* ctx_ = nullptr;
};

}  // namespace zodigest
