#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>

#include <zomoduleregistry/module_registry.h>

namespace zomoduleregistry {
namespace {

struct Registry {
  std::mutex mutex;
  std::map<std::string, std::string, std::less<>> modules;
};

// Never destroyed: modules unregister from their static destructors, which may run after this
// library's own would have.
Registry& registry() {
  static Registry* const instance = new Registry;
  return *instance;
}

}  // namespace

ModuleInfo::ModuleInfo() = default;
ModuleInfo::~ModuleInfo() = default;

std::ostream& operator<<(std::ostream& os, ModuleInfo const& info) {
  return os << info.info();
}

bool add_module_info(char const* name, char const* info) {
  Registry& r = registry();
  std::lock_guard const lock(r.mutex);
  return r.modules.try_emplace(name, info).second;
}

bool query_module_info(char const* name, ModuleInfo* out) {
  Registry& r = registry();
  std::lock_guard const lock(r.mutex);
  auto const found = r.modules.find(std::string_view(name));
  if (found == r.modules.end()) return false;
  out->name_ = found->first;
  out->info_ = found->second;
  return true;
}

bool remove_module_info(char const* name) {
  Registry& r = registry();
  std::lock_guard const lock(r.mutex);
  auto const found = r.modules.find(std::string_view(name));
  if (found == r.modules.end()) return false;
  r.modules.erase(found);
  return true;
}

}  // namespace zomoduleregistry
