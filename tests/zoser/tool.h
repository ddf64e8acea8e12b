// Running the zoser executable from tests, on files and pipes.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace zotest {

// The executable as the build installs it (bin/ of the build tree).
std::string zoser_path();

struct ToolResult {
  int status = -1;  // the exit status, or 128 + the signal that ended the process
  std::string out;
  std::string err;
};

// Runs zoser with `args`; standard input is `input` (from a file), standard output and error are
// collected.
ToolResult run_zoser(std::vector<std::string> const& args, std::string const& input = {});
// Runs `command` with /bin/sh in `dir`; "$ZOSER" names the executable.
ToolResult run_shell(std::string const& command, std::string const& dir);

// A directory of its own for a test, removed with everything in it at the end.
class TempDir {
 public:
  TempDir();
  TempDir(TempDir const&) = delete;
  TempDir& operator=(TempDir const&) = delete;
  ~TempDir();

  std::string const& path() const noexcept { return path_; }
  std::string file(std::string const& name) const { return path_ + "/" + name; }
  void write(std::string const& name, std::string const& bytes) const;
  std::string read(std::string const& name) const;
  bool exists(std::string const& name) const;
  // The names in the directory, hidden ones included, sorted.
  std::vector<std::string> names() const;

 private:
  std::string path_;
};

// zoser started with its standard input on a pipe that the test writes, and its output and
// error going to files; for tests that stop the tool half-way.
class Process {
 public:
  Process(std::vector<std::string> const& args, std::string const& dir);
  Process(Process const&) = delete;
  Process& operator=(Process const&) = delete;
  ~Process();

  // Writes to the tool's standard input; false once the tool has stopped reading.
  bool feed(std::string const& bytes);
  void close_input();
  void signal(int sig);
  // Waits for the end; the status as ToolResult::status.
  int wait();

 private:
  pid_t pid_ = -1;
  int input_ = -1;
};

}  // namespace zotest
