// The allowed-path test on a real tree: a link used as a prefix, a link inside a prefix that
// leads out of it, and a prefix only root can resolve.
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "foundation/path_check.h"
#include "harness/recording_script.h"
#include "harness/run_as.h"

namespace {

const std::string kRoot = "/tmp/path-check-test";

std::string Resolved(const std::string &path) {
  char real[PATH_MAX];
  return realpath(path.c_str(), real) != nullptr ? real : "";
}

class PathCheckTest : public testing::Test {
 protected:
  void SetUp() override {
    qsvtest::WriteFile(kRoot + "/allowed/conf/main.cf", "x");
    qsvtest::WriteFile(kRoot + "/outside/secret", "x");
    symlink((kRoot + "/allowed").c_str(), (kRoot + "/via-link").c_str());
    symlink((kRoot + "/outside").c_str(), (kRoot + "/allowed/escape").c_str());
  }
  const std::string allowed_ = kRoot + "/allowed";
  const char *prefixes_[3] = {"/nonexistent/prefix", allowed_.c_str(), nullptr};
};

TEST_F(PathCheckTest, ResolvedPathsInsidePassAndALinkOutFails) {
  EXPECT_TRUE(checkPathValid(prefixes_, Resolved(kRoot + "/allowed/conf/main.cf").c_str()));
  EXPECT_TRUE(checkPathValid(prefixes_, allowed_.c_str()));
  EXPECT_FALSE(checkPathValid(prefixes_, Resolved(kRoot + "/allowed/escape/secret").c_str()));
  EXPECT_FALSE(checkPathValid(prefixes_, (kRoot + "/allowed-sibling/x").c_str()));
  EXPECT_FALSE(checkPathValid(prefixes_, nullptr));
  const char *missing[] = {"/nonexistent/prefix", nullptr};
  EXPECT_FALSE(checkPathValid(missing, "/nonexistent/prefix/file"));
}

TEST_F(PathCheckTest, APrefixThatIsALinkMatchesItsTarget) {
  const std::string link = kRoot + "/via-link";
  const char *prefixes[] = {link.c_str(), nullptr};
  EXPECT_TRUE(checkPathValid(prefixes, (kRoot + "/allowed/conf/main.cf").c_str()));
  EXPECT_FALSE(checkPathValid(prefixes, (kRoot + "/via-link/conf/main.cf").c_str()));
  // The package's own target is such a link in the sandbox.
  mkdir("/var/packages/Quillon-Server/target/etc", 0755);
  const std::string conf = Resolved("/var/packages/Quillon-Server/target/etc") + "/main.cf";
  EXPECT_TRUE(checkPathValid(szgAllowPrefix, conf.c_str()));
  EXPECT_FALSE(checkPathValid(szgAllowPrefix, "/etc/passwd"));
}

TEST_F(PathCheckTest, PrefixesAreResolvedAsRootForALoweredCaller) {
  qsvtest::WriteFile(kRoot + "/closed/inner/file", "x");
  chmod((kRoot + "/closed").c_str(), 0700);  // the package user can't search it
  symlink((kRoot + "/closed/inner").c_str(), (kRoot + "/closed/link").c_str());
  const std::string prefix = kRoot + "/closed/link";
  const uid_t uid = qsvtest::UidOf("Quillon-Server");
  const int rc = qsvtest::RunWithEffectiveIds(uid, qsvtest::GidOf("Quillon-Server"), [&] {
    const char *prefixes[] = {prefix.c_str(), nullptr};
    if (!checkPathValid(prefixes, (kRoot + "/closed/inner/file").c_str())) return 1;
    return geteuid() == uid ? 0 : 2;
  });
  EXPECT_EQ(rc, 0);
}

}  // namespace
