// The process-wide registry of loaded modules.
#pragma once

#include <iosfwd>
#include <string>

#include <zomoduleregistry/export.h>

// Libraries of the framework register themselves here when they are loaded, under their module
// name, with a block of identifying text (for zoserialize, the ModuleInfo XML of its build). The
// registry lives in its own shared library, so every copy of a module loaded into one process
// sees the same registry and a second copy is noticed. All operations are thread-safe (one mutex
// held for a single lookup or change) and may be called from static initialisers and
// destructors: the registry is built on first use and never destroyed.
namespace zomoduleregistry {

class ModuleInfo;

// Registers `name` with `info` (both copied). False, leaving the registry as it was, when a module
// of that name is registered already.
ZOMODULEREGISTRY_API bool add_module_info(char const* name, char const* info);
// Copies the data of module `name` into `*out`; false, leaving `*out` as it was, when no module of
// that name is registered.
ZOMODULEREGISTRY_API bool query_module_info(char const* name, ModuleInfo* out);
// Unregisters `name`; false when it was not registered.
ZOMODULEREGISTRY_API bool remove_module_info(char const* name);

// A registered module's data, as query_module_info copies it out.
class ZOMODULEREGISTRY_API ModuleInfo {
 public:
  ModuleInfo();
  ~ModuleInfo();

  std::string const& name() const noexcept { return name_; }
  // The text the module registered.
  std::string const& info() const noexcept { return info_; }
  char const* c_str() const noexcept { return info_.c_str(); }

 private:
  friend bool query_module_info(char const* name, ModuleInfo* out);
  std::string name_;
  std::string info_;
};

// Prints the registered text.
ZOMODULEREGISTRY_API std::ostream& operator<<(std::ostream& os, ModuleInfo const& info);

}  // namespace zomoduleregistry
