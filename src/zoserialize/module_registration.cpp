// Registers this library with the process-wide module registry while it is loaded, so that a
// second copy of it in one process (another version, or a debug build beside a release build)
// is caught at load instead of surfacing later as obscure failures.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <zomoduleregistry/module_registry.h>

#include <zoserialize/impl/module_info.h>

namespace zoserialize::impl {
namespace {

constexpr char kModuleName[] = "zoserialize";

// Writes both modules' data to standard error (C stdio: usable before any iostream exists).
void report_duplicate(char const* xml) {
  zomoduleregistry::ModuleInfo registered;
  zomoduleregistry::query_module_info(kModuleName, &registered);
  std::fputs("ModuleRegistry: Module zoserialize is already loaded into this process!\n", stderr);
  std::fputs(
      "This is typically caused by a version or debug/release mismatch between libraries "
      "referenced by this process.\n",
      stderr);
  std::fprintf(stderr, "Data of module that was already registered:\n%s\n", registered.c_str());
  std::fprintf(stderr, "Data of new module that conflicts:\n%s\n", xml);
  // Printed also when the process goes on; that is how the message has always read.
  std::fputs("\nAborting...\n", stderr);
  std::fflush(stderr);
}

// Only the presence of the variable counts, whatever its value (the empty one included). Without
// it the load stops at a debugger break, which ends a process that has no debugger attached.
void on_duplicate(char const* xml) {
  report_duplicate(xml);
  if (std::getenv("VELD_MODULEREGISTRY_DONT_FAIL_ON_DUPLICATES") == nullptr) std::raise(SIGTRAP);
}

struct Registration {
  Registration() {
    char const* const xml = std::strchr(kModuleInfoBlock, '<');
    if (!zomoduleregistry::add_module_info(kModuleName, xml)) on_duplicate(xml);
  }
  // Runs at unload whatever the outcome at load, so a duplicate copy that was allowed to load
  // removes the first copy's record when it goes.
  ~Registration() { zomoduleregistry::remove_module_info(kModuleName); }
  Registration(Registration const&) = delete;
  Registration& operator=(Registration const&) = delete;
};

Registration const registration;  // NOLINT(cert-err58-cpp): registering is its purpose

}  // namespace
}  // namespace zoserialize::impl
