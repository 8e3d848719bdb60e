// What the content security tests share: a one-node cluster for each suite (settings and rule
// flags are published through its store), and the process's one anti-spam object, made once with
// the settings the first test of the process put in the store and the main database's real path.
#ifndef MAILSERVER_TESTS_SECURITY_SECURITY_FIXTURE_H_
#define MAILSERVER_TESTS_SECURITY_SECURITY_FIXTURE_H_

#include <sqlite3.h>

#include <string>

#include <gtest/gtest.h>

#include "config/mail_conf.h"
#include "foundation/mailserver_db_schema.h"
#include "harness/cluster_nodes.h"
#include "harness/one_node_cluster.h"
#include "security/spam.h"
#include "tables/tables_fixture.h"

namespace qsvtest {

// The settings as the instance read them when it was made.
struct SpamAtBirth {
  float requiredScore = 0;
  std::string rewriteSubject;
  int reportMechanism = 0;
  float nonSpamLearnThreshold = 0;
  bool enable = false;
};

// The process's Spam, made on first call after storing a score of 7.50, an empty subject and
// "yes" for the filter, with the other keys missing. REQUIRES: a cluster is up.
inline Spam *SpamInstance(SpamAtBirth *birth = nullptr) {
  static SpamAtBirth atBirth;
  static Spam *spam = [] {
    EXPECT_EQ(mailConfSet("spam_required_score", "7.50", true, 0), 0);
    EXPECT_EQ(mailConfSet("spam_rewrite_subject", "", true, 0), 0);
    EXPECT_EQ(mailConfSet("spam_enable", "yes", true, 0), 0);
    Spam *made = Spam::getInstance(kMailServerDBPath);
    if (made != nullptr) {
      atBirth = {made->getRequiredScore(), made->getRewriteSubject(), made->getReportMachanism(),
                 made->getNonSpamLearnThreshold(), made->isEnableSpamassassin()};
    }
    return made;
  }();
  if (birth != nullptr) *birth = atBirth;
  return spam;
}

// Runs `sql` on the main database with a connection of the test's own.
inline void MainDBExec(const std::string &sql) {
  sqlite3 *db = nullptr;
  ASSERT_EQ(sqlite3_open(kMailServerDBPath, &db), SQLITE_OK);
  sqlite3_busy_timeout(db, 60000);
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
  sqlite3_close(db);
}

// A one-node cluster for each suite.
using SecurityTest = TablesTest;

}  // namespace qsvtest

#endif  // MAILSERVER_TESTS_SECURITY_SECURITY_FIXTURE_H_
