#include "tool.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace zotest {

namespace {

std::string slurp(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

int decode_status(int raw) {
  if (WIFEXITED(raw)) return WEXITSTATUS(raw);
  if (WIFSIGNALED(raw)) return 128 + WTERMSIG(raw);
  return -1;
}

std::vector<char*> argv_of(std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (std::string& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  return argv;
}

// Spawns `args` with the three standard descriptors opened from files (an empty name keeps the
// parent's) and waits for it.
ToolResult spawn_and_wait(std::vector<std::string> args, std::string const& input,
                          std::string const& dir) {
  TempDir io;
  io.write("in", input);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, io.file("in").c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, io.file("out").c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, io.file("err").c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::string const cwd = dir.empty() ? io.path() : dir;
  std::string const shell = "cd '" + cwd + "' && exec \"$@\"";
  args.insert(args.begin(), {"/bin/sh", "-c", shell, "sh"});
  std::vector<char*> argv = argv_of(args);
  pid_t pid = -1;
  int const rc = posix_spawn(&pid, "/bin/sh", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("posix_spawn failed");
  int raw = 0;
  while (waitpid(pid, &raw, 0) < 0 && errno == EINTR) {
  }
  return {decode_status(raw), io.read("out"), io.read("err")};
}

}  // namespace

std::string zoser_path() {
  return ZOSER_BINARY;
}

ToolResult run_zoser(std::vector<std::string> const& args, std::string const& input) {
  std::vector<std::string> full{zoser_path()};
  full.insert(full.end(), args.begin(), args.end());
  return spawn_and_wait(std::move(full), input, {});
}

ToolResult run_shell(std::string const& command, std::string const& dir) {
  ::setenv("ZOSER", ZOSER_BINARY, 1);
  return spawn_and_wait({"/bin/sh", "-c", command}, {}, dir);
}

TempDir::TempDir() {
  char pattern[] = "/tmp/zoser-test-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  for (std::string const& name : names())
    ::unlink(file(name).c_str());
  ::rmdir(path_.c_str());
}

void TempDir::write(std::string const& name, std::string const& bytes) const {
  std::ofstream(file(name), std::ios::binary) << bytes;
}

std::string TempDir::read(std::string const& name) const {
  return slurp(file(name));
}

bool TempDir::exists(std::string const& name) const {
  struct stat st {};
  return ::lstat(file(name).c_str(), &st) == 0;
}

std::vector<std::string> TempDir::names() const {
  std::vector<std::string> out;
  if (DIR* d = ::opendir(path_.c_str())) {
    while (dirent* e = ::readdir(d)) {
      std::string const n = e->d_name;
      if (n != "." && n != "..") out.push_back(n);
    }
    ::closedir(d);
  }
  std::sort(out.begin(), out.end());
  return out;
}

Process::Process(std::vector<std::string> const& args, std::string const& dir) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  input_ = fds[1];
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  std::vector<std::string> full{"/bin/sh", "-c", "cd '" + dir + "' && exec \"$@\"", "sh",
                                zoser_path()};
  full.insert(full.end(), args.begin(), args.end());
  std::vector<char*> argv = argv_of(full);
  int const rc = posix_spawn(&pid_, "/bin/sh", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[0]);
  if (rc != 0) throw std::runtime_error("posix_spawn failed");
}

Process::~Process() {
  close_input();
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    wait();
  }
}

bool Process::feed(std::string const& bytes) {
  ::signal(SIGPIPE, SIG_IGN);
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t const n = ::write(input_, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

void Process::close_input() {
  if (input_ >= 0) ::close(input_);
  input_ = -1;
}

void Process::signal(int sig) {
  ::kill(pid_, sig);
}

int Process::wait() {
  int raw = 0;
  while (::waitpid(pid_, &raw, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return decode_status(raw);
}

}  // namespace zotest
