#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <zomoduleregistry/module_registry.h>

namespace {

namespace registry = zomoduleregistry;

TEST(ModuleRegistryTest, AddQueryRemove) {
  registry::ModuleInfo info;
  EXPECT_FALSE(registry::query_module_info("test.a", &info));
  EXPECT_TRUE(registry::add_module_info("test.a", "<first/>"));
  EXPECT_FALSE(registry::add_module_info("test.a", "<second/>"));  // the first one stays
  EXPECT_TRUE(registry::add_module_info("test.ab", "<other/>"));
  ASSERT_TRUE(registry::query_module_info("test.a", &info));
  EXPECT_EQ(info.name(), "test.a");
  EXPECT_EQ(info.info(), "<first/>");
  EXPECT_STREQ(info.c_str(), "<first/>");
  std::ostringstream printed;
  printed << info;
  EXPECT_EQ(printed.str(), "<first/>");
  EXPECT_TRUE(registry::remove_module_info("test.a"));
  EXPECT_FALSE(registry::remove_module_info("test.a"));
  EXPECT_FALSE(registry::query_module_info("test.a", &info));
  EXPECT_EQ(info.info(), "<first/>");  // left as it was
  EXPECT_TRUE(registry::add_module_info("test.a", "<again/>"));
  EXPECT_TRUE(registry::remove_module_info("test.a"));
  EXPECT_TRUE(registry::remove_module_info("test.ab"));
}

// Threads race to register the same names: exactly one wins each name, every winner's data is
// what is registered, and removal leaves nothing behind.
TEST(ModuleRegistryThreadsTest, OneWinnerPerName) {
  constexpr int kThreads = 4;
  constexpr int kNames = 200;
  std::vector<std::vector<int>> wins(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &wins] {
      for (int n = 0; n < kNames; ++n) {
        std::string const name = "race." + std::to_string(n);
        if (registry::add_module_info(name.c_str(), std::to_string(t).c_str()))
          wins[t].push_back(n);
        registry::ModuleInfo info;
        EXPECT_TRUE(registry::query_module_info(name.c_str(), &info));
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  int total = 0;
  for (int t = 0; t < kThreads; ++t) {
    for (int n : wins[t]) {
      registry::ModuleInfo info;
      std::string const name = "race." + std::to_string(n);
      ASSERT_TRUE(registry::query_module_info(name.c_str(), &info));
      EXPECT_EQ(info.info(), std::to_string(t));
      EXPECT_TRUE(registry::remove_module_info(name.c_str()));
      ++total;
    }
  }
  EXPECT_EQ(total, kNames);
}

}  // namespace
