#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>

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

constexpr char kVariable[] = "VELD_MODULEREGISTRY_DONT_FAIL_ON_DUPLICATES";

// The file this process loaded libzoserialize.so.1 from.
fs::path library_file() {
  void* const handle = dlopen("libzoserialize.so.1", RTLD_NOW | RTLD_NOLOAD);
  link_map* map = nullptr;
  if (!handle || dlinfo(handle, RTLD_DI_LINKMAP, &map) != 0) return {};
  fs::path const path = fs::canonical(map->l_name);
  dlclose(handle);
  return path;
}

std::string registered_xml() {
  zomoduleregistry::ModuleInfo info;
  return zomoduleregistry::query_module_info("zoserialize", &info) ? info.info() : "<none>";
}

std::string read_file(fs::path const& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

struct Child {
  int status;
  std::string err;  // what the child wrote to standard error
};

// Runs `body` in a forked child (no core dump), returning its wait status and standard error.
Child run_in_child(std::function<int()> const& body) {
  int fds[2];
  if (pipe(fds) != 0) return {-1, "pipe failed"};
  std::fflush(nullptr);
  pid_t const pid = fork();
  if (pid == 0) {
    close(fds[0]);
    dup2(fds[1], STDERR_FILENO);
    close(fds[1]);
    rlimit const no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    _exit(body());
  }
  close(fds[1]);
  std::string err;
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;)
    err.append(buffer, static_cast<std::size_t>(n));
  close(fds[0]);
  int status = -1;
  waitpid(pid, &status, 0);
  return {status, err};
}

// The registered record: the XML part of the block, its items in order, values from the build.
TEST(ModuleRegistrationTest, RecordDescribesThisBuild) {
  std::string const xml = registered_xml();
  std::smatch match;
  std::regex const layout(
      "<ModuleInfo name=\"zoserialize\" type=\"dll\" tool=\"(gcc|clang)[0-9]+\" "
      "build=\"(debug|release)\" arch=\"x86\">\n"
      "  <FileInfo>\n"
      "    <Item name=\"CompanyName\">[^<]+</Item>\n"
      "    <Item name=\"FileVersion\">[0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+</Item>\n"
      "    <Item name=\"InternalName\">zoserialize</Item>\n"
      "    <Item name=\"OriginalFilename\">([^<]+)</Item>\n"
      "    <Item name=\"LegalCopyright\">[^<]+</Item>\n"
      "    <Item name=\"VELDBuildMachine\">[^<]*</Item>\n"
      "    <Item name=\"VELDBuildName\">[^<]+</Item>\n"
      "    <Item name=\"VELDBuildChangelist\">[0-9]+</Item>\n"
      "    <Item name=\"VELDBuildNum\">[0-9]+</Item>\n"
      "    <Item name=\"VELDBuildTimestamp\">[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}</Item>\n"
      "    <Item name=\"VELDBuildId\">([0-9A-F]{32})</Item>\n"
      "  </FileInfo>\n"
      "</ModuleInfo>\n");
  ASSERT_TRUE(std::regex_match(xml, match, layout)) << xml;
  fs::path const file = library_file();
  EXPECT_EQ(match[3].str(), file.filename().string());
  // The whole block, marker line first, is stored in the library file for scanning tools.
  std::string const block = "***VELD*MODULE*INFO*" + match[4].str() + "***\n" + xml;
  EXPECT_NE(read_file(file).find(block), std::string::npos) << file;
}

class ModuleRegistrationDuplicateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::path const original = library_file();
    ASSERT_FALSE(original.empty());
    dir_ = fs::temp_directory_path() / ("zoserialize-copy-" + std::to_string(getpid()));
    fs::create_directories(dir_);
    copy_ = dir_ / "libzoserialize-copy.so";
    fs::copy_file(original, copy_, fs::copy_options::overwrite_existing);
    xml_ = registered_xml();
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::string five_lines() const {
    return "ModuleRegistry: Module zoserialize is already loaded into this process!\n"
           "This is typically caused by a version or debug/release mismatch between libraries "
           "referenced by this process.\n"
           "Data of module that was already registered:\n" +
           xml_ + "\nData of new module that conflicts:\n" + xml_ + "\n\nAborting...\n";
  }

  fs::path dir_;
  fs::path copy_;
  std::string xml_;
};

// The variable counts by its presence, even empty: the copy loads after the five lines, both
// copies work, and the copy's unload step removes the record.
TEST_F(ModuleRegistrationDuplicateTest, VariableSetLetsBothCopiesWork) {
  Child const child = run_in_child([this] {
    setenv(kVariable, "", 1);
    // Registered before the copy loads, so it runs after the copy's static destructors.
    std::atexit([] { _exit(registered_xml() == "<none>" ? 0 : 20); });
    void* const copy = dlopen(copy_.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!copy) return 10;
    using TokenName = std::string (*)(zoserialize::Reader::EToken);
    auto const copy_token_name = reinterpret_cast<TokenName>(
        dlsym(copy, "_ZN11zoserialize10token_nameB5cxx11ENS_6Reader6ETokenE"));
    if (!copy_token_name || copy_token_name(zoserialize::Reader::EToken::Null) != "Null") return 11;
    if (zoserialize::token_name(zoserialize::Reader::EToken::Uuid) != "Uuid") return 12;
    if (registered_xml() != xml_) return 13;  // the first copy's record stays
    std::exit(0);
  });
  EXPECT_TRUE(WIFEXITED(child.status)) << child.status;
  EXPECT_EQ(WEXITSTATUS(child.status), 0);
  EXPECT_EQ(child.err, five_lines());
}

// Without the variable the load stops at a debugger break, which ends the process.
TEST_F(ModuleRegistrationDuplicateTest, VariableAbsentEndsTheProcessBySigtrap) {
  Child const child = run_in_child([this] {
    unsetenv(kVariable);
    dlopen(copy_.c_str(), RTLD_NOW | RTLD_LOCAL);
    return 30;
  });
  ASSERT_TRUE(WIFSIGNALED(child.status)) << child.status;
  EXPECT_EQ(WTERMSIG(child.status), SIGTRAP);
  EXPECT_EQ(child.err, five_lines());
}

}  // namespace
