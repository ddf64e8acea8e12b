#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zomoduleregistry/module_registry.h>

#include <zoserialize/reader.h>

namespace {

namespace fs = std::filesystem;

// The file this process loaded libzoserialize.so.1 from.
fs::path library_file() {
  void* const handle = dlopen("libzoserialize.so.1", RTLD_NOW | RTLD_NOLOAD);
  link_map* map = nullptr;
  if (!handle || dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0) return {};
  fs::path path = fs::canonical(map->l_name);
  dlclose(handle);
  return path;
}

std::string registered_xml() {
  zomoduleregistry::ModuleInfo info;
  return zomoduleregistry::query_module_info("zoserialize", &info) ? info.info() : "<none>";
}

// Whether `value` has the shape of `pattern`: '9' a digit, 'X' an uppercase hex digit.
bool shaped(std::string_view value, std::string_view pattern) {
  return value.size() == pattern.size() &&
         std::equal(value.begin(), value.end(), pattern.begin(), [](char v, char p) {
           return p == '9'   ? std::isdigit(v)
                  : p == 'X' ? std::isxdigit(v) && !std::islower(v)
                             : v == p;
         });
}

// The registered XML lists the items in order with values from the build, and the library file
// holds the whole block, marker line first, for scanning tools.
TEST(ModuleRegistrationTest, RecordDescribesThisBuild) {
  std::string const xml = registered_xml();
  std::vector<std::string> lines;
  for (std::istringstream in(xml); lines.emplace_back(), std::getline(in, lines.back());) {
  }
  lines.pop_back();
  ASSERT_EQ(lines.size(), 15u) << xml;
  EXPECT_TRUE(lines[0].starts_with("<ModuleInfo name=\"zoserialize\" type=\"dll\" tool=\""));
  EXPECT_TRUE(lines[0].ends_with("\" build=\"debug\" arch=\"x86\">") ||
              lines[0].ends_with("\" build=\"release\" arch=\"x86\">"));
  EXPECT_EQ(lines[1] + lines[13] + lines[14], "  <FileInfo>  </FileInfo></ModuleInfo>");
  std::vector<std::string> values;
  for (char const* name :
       {"CompanyName", "FileVersion", "InternalName", "OriginalFilename", "LegalCopyright",
        "VELDBuildMachine", "VELDBuildName", "VELDBuildChangelist", "VELDBuildNum",
        "VELDBuildTimestamp", "VELDBuildId"}) {
    std::string const& line = lines[values.size() + 2];
    std::string const open = "    <Item name=\"" + std::string(name) + "\">";
    EXPECT_TRUE(line.starts_with(open) && line.ends_with("</Item>")) << line;
    values.push_back(line.substr(open.size(), line.size() - open.size() - 7));
  }
  fs::path const file = library_file();
  auto const made_of = [](std::string const& v, char const* chars) {
    return !v.empty() && v.find_first_not_of(chars) == std::string::npos;
  };
  EXPECT_TRUE(made_of(values[1], "0123456789.") &&
              std::count(values[1].begin(), values[1].end(), '.') == 3);
  EXPECT_EQ(values[2] + " " + values[3], "zoserialize " + file.filename().string());
  EXPECT_TRUE(made_of(values[7], "0123456789") && made_of(values[8], "0123456789"));
  EXPECT_TRUE(shaped(values[9], "9999-99-99 99:99")) << values[9];
  EXPECT_TRUE(shaped(values[10], std::string(32, 'X'))) << values[10];
  std::ifstream in(file, std::ios::binary);
  std::string const bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  EXPECT_NE(bytes.find("***VELD*MODULE*INFO*" + values[10] + "***\n" + xml), std::string::npos);
}

// The child process: the test binary started again with ZOTEST_MODULE_COPY loads that copy of
// the library and exits before any test runs (a fresh process, so that AddressSanitizer can be
// told that the second copy's globals are expected).
int load_copy(char const* copy) {
  std::string const xml = registered_xml();
  // Registered before the copy loads, so it runs after the copy's unload step: the record is gone.
  std::atexit([] { _exit(registered_xml() == "<none>" ? 0 : 20); });
  void* const handle = dlopen(copy, RTLD_NOW | RTLD_LOCAL);
  auto const copy_token_name = reinterpret_cast<std::string (*)(zoserialize::Reader::EToken)>(
      handle ? dlsym(handle, "_ZN11zoserialize10token_nameB5cxx11ENS_6Reader6ETokenE") : nullptr);
  // Both copies work, and the first copy's record stays while the second is loaded.
  if (!copy_token_name || copy_token_name(zoserialize::Reader::EToken::Null) != "Null" ||
      zoserialize::token_name(zoserialize::Reader::EToken::Uuid) != "Uuid" ||
      registered_xml() != xml)
    _exit(10);
  std::exit(0);
}

int const child_entry = [] {
  if (char const* copy = std::getenv("ZOTEST_MODULE_COPY")) load_copy(copy);
  return 0;
}();

// A copy of the library file loaded in a child process, with the variable set (even empty: only
// its presence counts) or not. Checks the five lines on standard error; returns the wait status.
int load_copy_in_child(bool variable_set) {
  fs::path const copy =
      fs::temp_directory_path() / ("zoserialize-copy-" + std::to_string(getpid()));
  fs::copy_file(library_file(), copy, fs::copy_options::overwrite_existing);
  std::string const xml = registered_xml();
  char const* const asan = std::getenv("ASAN_OPTIONS");
  std::string const asan_options = std::string(asan ? asan : "") + ":detect_odr_violation=0";
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  std::fflush(nullptr);
  if (fork() == 0) {
    dup2(fds[1], STDERR_FILENO);
    rlimit const no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    if (variable_set) {
      setenv("VELD_MODULEREGISTRY_DONT_FAIL_ON_DUPLICATES", "", 1);
    } else {
      unsetenv("VELD_MODULEREGISTRY_DONT_FAIL_ON_DUPLICATES");
    }
    setenv("ZOTEST_MODULE_COPY", copy.c_str(), 1);
    setenv("ASAN_OPTIONS", asan_options.c_str(), 1);
    execl("/proc/self/exe", "zoserialize_tests", nullptr);
    _exit(127);
  }
  close(fds[1]);
  std::string err;
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;)
    err.append(buffer, static_cast<std::size_t>(n));
  close(fds[0]);
  int status = -1;
  wait(&status);
  fs::remove(copy);
  EXPECT_EQ(err,
            "ModuleRegistry: Module zoserialize is already loaded into this process!\n"
            "This is typically caused by a version or debug/release mismatch between "
            "libraries referenced by this process.\n"
            "Data of module that was already registered:\n" +
                xml + "\nData of new module that conflicts:\n" + xml + "\n\nAborting...\n");
  return status;
}

TEST(ModuleRegistrationTest, DuplicateWithVariableLoadsAndUnloads) {
  int const status = load_copy_in_child(true);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(ModuleRegistrationTest, DuplicateWithoutVariableEndsBySigtrap) {
  int const status = load_copy_in_child(false);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTRAP) << status;
}

}  // namespace
