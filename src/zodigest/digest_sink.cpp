#include <string>

#include <openssl/err.h>
#include <openssl/evp.h>

#include <zocore/error_composer.h>
#include <zocore/hex.h>
#include <zodigest/digest_sink.h>
#include <zodigest/error_codes.h>

namespace zodigest {
namespace {

constexpr char kModuleId[] = "$Id: src/zodigest/digest_sink.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

// OpenSSL fails only on exhausted memory or a broken provider: out of line, with the call named.
[[noreturn, gnu::cold]] void throw_openssl(char const* call, char const* function) {
  unsigned long const code = ERR_get_error();
  ERR_clear_error();
  char reason[256] = "unknown";
  if (code != 0) ERR_error_string_n(code, reason, sizeof reason);
  zocore::ErrorComposer(
      "OpenSSL digest operation failed.  Operation={@operation}, Reason={@reason}")
      .add("operation", call)
      .add("reason", std::string(reason))
      .throw_error(error::zodigest_openssl, here(function));
}

// An owned context that frees itself, for the copies digest() finalises.
struct ContextCopy {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  ContextCopy() = default;
  ContextCopy(ContextCopy const&) = delete;
  ContextCopy& operator=(ContextCopy const&) = delete;
  ~ContextCopy() { EVP_MD_CTX_free(ctx); }
};

}  // namespace

DigestSink::DigestSink() : DigestSink(kDefaultAlgorithm) {}

DigestSink::DigestSink(std::string_view algorithm) {
  static constexpr char kFunction[] = "zodigest::DigestSink::DigestSink()";
  std::string const name(algorithm);
  md_ = EVP_MD_fetch(nullptr, name.c_str(), nullptr);
  if (md_ == nullptr) {
    ERR_clear_error();
    zocore::ErrorComposer("Unknown digest algorithm.  Name={@name}")
        .add("name", name)
        .throw_error(error::zodigest_algorithm, here(kFunction));
  }
  ctx_ = EVP_MD_CTX_new();
  if (ctx_ == nullptr || EVP_DigestInit_ex(ctx_, md_, nullptr) != 1) {
    EVP_MD_CTX_free(ctx_);
    EVP_MD_free(md_);
    throw_openssl("EVP_DigestInit_ex", kFunction);
  }
}

DigestSink::~DigestSink() {
  EVP_MD_CTX_free(ctx_);
  EVP_MD_free(md_);
}

void DigestSink::write(void const* data, unsigned size) {
  if (EVP_DigestUpdate(ctx_, data, size) != 1) [[unlikely]]
    throw_openssl("EVP_DigestUpdate", "zodigest::DigestSink::write()");
}

std::string DigestSink::algorithm() const {
  return EVP_MD_get0_name(md_);
}

unsigned DigestSink::digest_size() const {
  return static_cast<unsigned>(EVP_MD_get_size(md_));
}

std::vector<unsigned char> DigestSink::digest() const {
  static constexpr char kFunction[] = "zodigest::DigestSink::digest()";
  // Finalising a copy leaves the running context as it is, so writing can go on.
  ContextCopy const copy;
  if (copy.ctx == nullptr || EVP_MD_CTX_copy_ex(copy.ctx, ctx_) != 1)
    throw_openssl("EVP_MD_CTX_copy_ex", kFunction);
  std::vector<unsigned char> out(EVP_MAX_MD_SIZE);
  unsigned size = 0;
  if (EVP_DigestFinal_ex(copy.ctx, out.data(), &size) != 1)
    throw_openssl("EVP_DigestFinal_ex", kFunction);
  out.resize(size);
  return out;
}

std::string DigestSink::hex_digest() const {
  std::vector<unsigned char> const bytes = digest();
  return zocore::hex_encode(bytes.data(), bytes.size());
}

void DigestSink::reset() {
  if (EVP_DigestInit_ex(ctx_, md_, nullptr) != 1)
    throw_openssl("EVP_DigestInit_ex", "zodigest::DigestSink::reset()");
}

}  // namespace zodigest
