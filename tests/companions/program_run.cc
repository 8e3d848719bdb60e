#include "companions/program_run.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>

extern char **environ;

namespace qsvtest {

const char kBackendConf[] = "/var/packages/Quillon-Server/etc/backend.conf";

namespace {

std::string ReadAll(int fd) {
  std::string text;
  char buf[65536];
  ssize_t n;
  while ((n = read(fd, buf, sizeof(buf))) > 0) text.append(buf, static_cast<size_t>(n));
  return text;
}

}  // namespace

ProgramRun RunProgram(const std::vector<std::string> &args) {
  ProgramRun run;
  int out[2];
  const int err = memfd_create("stderr", MFD_CLOEXEC);
  if (pipe2(out, O_CLOEXEC) != 0 || err < 0) throw std::runtime_error("pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err, 2);
  std::vector<char *> argv;
  for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid;
  const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  if (rc == 0) {
    run.out = ReadAll(out[0]);
    int status;
    waitpid(pid, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    lseek(err, 0, SEEK_SET);
    run.err = ReadAll(err);
  } else {
    ADD_FAILURE() << "cannot run " << args[0];
  }
  close(out[0]);
  close(err);
  return run;
}

ProgramRun RunTool(const std::vector<std::string> &args) {
  std::vector<std::string> argv = {"/var/packages/Quillon-Server/target/usr/bin/kolt-quillon-server-go-utils"};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv);
}

ProgramRun Backend(const std::string &word, const std::string &key, const std::vector<std::string> &more) {
  std::vector<std::string> args = {"backend-command", "--command", word, "--key", key};
  args.insert(args.end(), more.begin(), more.end());
  return RunTool(args);
}

DirectRedis::DirectRedis(int port, const std::string &password)
    : context_(redisConnect("127.0.0.1", port)) {
  if (context_ == nullptr || context_->err != 0) {
    throw std::runtime_error("cannot connect to port " + std::to_string(port));
  }
  if (Command({"AUTH", password}) != "OK") throw std::runtime_error("AUTH refused");
}

DirectRedis::~DirectRedis() { redisFree(context_); }

std::string DirectRedis::Command(const std::vector<std::string> &args) {
  std::vector<const char *> argv;
  std::vector<size_t> lengths;
  for (const auto &a : args) argv.push_back(a.data()), lengths.push_back(a.size());
  auto *reply = static_cast<redisReply *>(
      redisCommandArgv(context_, static_cast<int>(args.size()), argv.data(), lengths.data()));
  if (reply == nullptr) throw std::runtime_error("lost the test's Redis connection");
  std::string text = reply->type == REDIS_REPLY_INTEGER ? std::to_string(reply->integer)
                     : reply->type == REDIS_REPLY_NIL   ? "(nil)"
                     : reply->str == nullptr            ? ""
                                                        : std::string(reply->str, reply->len);
  if (reply->type == REDIS_REPLY_ERROR) text = "(error) " + text;
  freeReplyObject(reply);
  return text;
}

std::string DirectRedis::NextMessage() {
  redisSetTimeout(context_, timeval{5, 0});
  void *raw = nullptr;
  if (redisGetReply(context_, &raw) != REDIS_OK) return "(none)";
  auto *reply = static_cast<redisReply *>(raw);
  std::string payload = "(none)";
  if (reply->type == REDIS_REPLY_ARRAY && reply->elements == 3) {
    payload.assign(reply->element[2]->str, reply->element[2]->len);
  }
  freeReplyObject(reply);
  return payload;
}

}  // namespace qsvtest
