// Replays stored fuzz inputs through a fuzz target's entry point without libFuzzer, so that the
// seed corpus and every saved reproducer run in the ordinary test suite (under the sanitizers of
// whatever build compiles it).
//
// Usage: replay_<target> <file or directory>...  Directories are walked recursively; every
// regular file in them is one input. A path that does not exist is an error, so that a moved
// corpus cannot silently turn the test into a no-op.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

bool collect(fs::path const& path, std::vector<fs::path>& inputs) {
  std::error_code ec;
  if (fs::is_regular_file(path, ec)) {
    inputs.push_back(path);
    return true;
  }
  if (!fs::is_directory(path, ec)) {
    std::fprintf(stderr, "replay: no such file or directory: %s\n", path.c_str());
    return false;
  }
  std::vector<fs::path> found;
  for (fs::directory_entry const& entry : fs::recursive_directory_iterator(path, ec)) {
    if (entry.is_regular_file()) found.push_back(entry.path());
  }
  if (ec) {
    std::fprintf(stderr, "replay: cannot list %s: %s\n", path.c_str(), ec.message().c_str());
    return false;
  }
  // A fixed order, so that a failure names the same input on every run.
  std::sort(found.begin(), found.end());
  inputs.insert(inputs.end(), found.begin(), found.end());
  return true;
}

bool read_file(fs::path const& path, std::string& out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <file or directory>...\n", argv[0]);
    return 2;
  }
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    if (!collect(argv[i], inputs)) return 2;
  }
  std::string bytes;
  for (fs::path const& input : inputs) {
    if (!read_file(input, bytes)) {
      std::fprintf(stderr, "replay: cannot read %s\n", input.c_str());
      return 2;
    }
    // Named before it runs: a crash leaves the culprit as the last line.
    std::fprintf(stderr, "replay: %s (%zu bytes)\n", input.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
  }
  std::printf("replay: %zu inputs ran cleanly\n", inputs.size());
  return 0;
}
