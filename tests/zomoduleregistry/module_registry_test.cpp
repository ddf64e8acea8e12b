#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <zomoduleregistry/module_registry.h>

namespace {

namespace registry = zomoduleregistry;

// A name is registered once and a failed query leaves its output alone; threads racing for the
// same names leave exactly one record per name.
TEST(ModuleRegistryThreadsTest, OneRecordPerName) {
  registry::ModuleInfo info;
  EXPECT_TRUE(registry::add_module_info("test.a", "<first/>"));
  EXPECT_FALSE(registry::add_module_info("test.a", "<second/>"));
  ASSERT_TRUE(registry::query_module_info("test.a", &info));
  std::ostringstream printed;
  printed << info;
  EXPECT_EQ(info.name() + " " + info.c_str() + " " + printed.str(), "test.a <first/> <first/>");
  EXPECT_TRUE(registry::remove_module_info("test.a"));
  EXPECT_FALSE(registry::remove_module_info("test.a"));
  EXPECT_FALSE(registry::query_module_info("test.a", &info));
  EXPECT_EQ(info.info(), "<first/>");
  std::vector<std::thread> threads;
  for (char const* data : {"<1/>", "<2/>", "<3/>"}) {
    threads.emplace_back([data] {
      for (int n = 0; n < 200; ++n)
        registry::add_module_info(("race." + std::to_string(n)).c_str(), data);
    });
  }
  for (auto& thread : threads)
    thread.join();
  for (int n = 0; n < 200; ++n) {
    std::string const name = "race." + std::to_string(n);
    EXPECT_TRUE(registry::remove_module_info(name.c_str()));
    EXPECT_FALSE(registry::query_module_info(name.c_str(), &info));
  }
}

}  // namespace
