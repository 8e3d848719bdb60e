// Outgoing relays stored in the real settings store of a one-node cluster, and the transport,
// sender and password maps Postfix reads, looked up with the real postmap.
#include "tables/relay_client.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <list>
#include <string>

#include "config/mail_conf.h"
#include "core/mail_conf.h"
#include "harness/recording_script.h"
#include "harness/syslog_capture.h"
#include "tables/tables_fixture.h"

namespace {

const std::string kEtc = "/var/packages/Quillon-Server/target/etc/";
const std::string kTransport = kEtc + "relay_transport";
const std::string kSender = kEtc + "sender_relay";
const std::string kRelayDir = kEtc + "relay/";

// A host object as a caller hands it in; `rules` are "domain:..." or "address:...".
Json::Value Host(const std::string &server, unsigned port, const std::list<std::string> &rules,
                 const std::string &user = "", const std::string &password = "",
                 bool enable = true) {
  Json::Value host;
  host["server"] = server;
  host["port"] = port;
  host["security_connection"] = true;
  host["enable_auth"] = !user.empty();
  host["auth_name"] = user;
  host["auth_password"] = password;
  host["enable"] = enable;
  host["description"] = "";
  host["rule_list"] = Json::Value(Json::arrayValue);
  for (const std::string &rule : rules) {
    Json::Value item;
    item["rule_type"] = rule.substr(0, rule.find(':'));
    item["pattern"] = rule.substr(rule.find(':') + 1);
    host["rule_list"].append(item);
  }
  return host;
}

Json::Value List(std::initializer_list<Json::Value> hosts) {
  Json::Value list(Json::arrayValue);
  for (const Json::Value &host : hosts) list.append(host);
  return list;
}

int SetMode(const std::string &mode) {
  Json::Value type;
  type["host_type"] = mode;
  return RelayHost().setRelayHostType(type);
}

std::string Query(const std::string &key, const std::string &map) {
  return qsvtest::PostmapQuery(key, "hash:" + map);
}

class RelayHostTest : public qsvtest::TablesTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(mailConfSet("smtp_hostname", "mx.example.test", true, 0), 0);
    ASSERT_EQ(mailConfSet("virtual_multiple_domain", "1/example.test, 2/müller.test", true, 0), 0);
    ASSERT_EQ(mailConfSet("smtp_relay_client_single", "{}", true, 0), 0);
    ASSERT_EQ(SetMode("none"), 0);
    Json::Value empty(Json::arrayValue);
    ASSERT_EQ(RelayHost().setRelayHost("sender", empty), 0);
    ASSERT_EQ(RelayHost().setRelayHost("recipient", empty), 0);
  }
};

TEST_F(RelayHostTest, MultipleRelaysReachPostfixInBothSpellings) {
  Json::Value senders =
      List({Host("smtp.bücher.test", 587, {"domain:bücher.test", "address:boss@corp.test"}, "sam",
                 "s3cret:x")});
  Json::Value recipients = List({
      Host("r0.relay.test", 25, {"domain:partner.test"}),
      Host("r1.relay.test", 2525, {"domain:xn--caf-dma.test"}, "off", "pw", false),
      Host("r2.relay.test", 465, {"address:ann@partner2.test"}, "rita", "pw2"),
  });
  ASSERT_EQ(RelayHost().setRelayHost("sender", senders), 0);
  ASSERT_EQ(RelayHost().setRelayHost("recipient", recipients), 0);
  EXPECT_EQ(recipients[2]["service_name"].asString(), "relay-recipient2");
  ASSERT_EQ(SetMode("multiple"), 0);

  // The store holds the password enciphered; the object reads it back in clear.
  std::string stored;
  ASSERT_EQ(mailConfGet("smtp_relay_client_sender", stored), 0);
  EXPECT_EQ(stored.find("s3cret"), std::string::npos);
  std::list<RelayHostInfo> hosts;
  ASSERT_EQ(RelayHost().getRelayHost("sender", hosts), 0);
  ASSERT_EQ(hosts.size(), 1u);
  EXPECT_EQ(hosts.front().auth_password, "s3cret:x");
  EXPECT_EQ(hosts.front().service_name, "relay-sender0");

  qsvtest::SyslogCapture log;
  ASSERT_EQ(RelayHost().exportRelayMap(), 0);
  EXPECT_EQ(log.Matching("[Relay Client] Host authentication info lost").size(), 1u)
      << "the disabled host's password is withheld";

  EXPECT_EQ(qsvtest::ReadFile(kSender),
            "@xn--bcher-kva.test relay-sender0:[smtp.xn--bcher-kva.test]:587\n"
            "@bücher.test relay-sender0:[smtp.xn--bcher-kva.test]:587\n"
            "boss@corp.test relay-sender0:[smtp.xn--bcher-kva.test]:587\n\n");
  EXPECT_EQ(qsvtest::ReadFile(kTransport),
            "partner.test relay-recipient0:[r0.relay.test]:25\n\n"
            "ann@partner2.test relay-recipient2:[r2.relay.test]:465\n\n");
  const std::string relay = "relay-sender0:[smtp.xn--bcher-kva.test]:587";
  EXPECT_EQ(Query("@bücher.test", kSender), relay);
  EXPECT_EQ(Query("@xn--bcher-kva.test", kSender), relay);
  EXPECT_EQ(Query("bücher.test", kSender), "") << "a sender domain key starts with @";
  EXPECT_EQ(Query("partner.test", kTransport), "relay-recipient0:[r0.relay.test]:25");
  EXPECT_EQ(Query("café.test", kTransport), "") << "a disabled host routes nothing";

  const std::string senderPass = kRelayDir + "sasl_passwd_relay-sender0";
  EXPECT_EQ(qsvtest::ReadFile(senderPass), "[smtp.xn--bcher-kva.test]:587 sam:s3cret:x\n");
  EXPECT_EQ(Query("[smtp.xn--bcher-kva.test]:587", senderPass), "sam:s3cret:x");
  EXPECT_EQ(Query("[r2.relay.test]:465", kRelayDir + "sasl_passwd_relay-recipient2"), "rita:pw2");
  EXPECT_EQ(qsvtest::ReadFile(kRelayDir + "sasl_passwd_relay-recipient0"), "");
  EXPECT_EQ(qsvtest::ReadFile(kRelayDir + "sasl_passwd_relay-recipient1"), "");
  struct stat st;
  ASSERT_EQ(stat((senderPass + ".db").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 077, 0u) << "a password map readable by others";
  ASSERT_EQ(stat(senderPass.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 077, 0u);

  // Back to one relay: the per-host passwords go, the single one comes.
  Json::Value single = Host("relay.isp.test", 465, {}, "me", "pw");
  ASSERT_EQ(RelayHost().setSingleRelayHost(single), 0);
  ASSERT_EQ(SetMode("single"), 0);
  ASSERT_EQ(RelayHost().exportRelayMap(), 0);
  EXPECT_EQ(qsvtest::ReadFile(kTransport), "");
  EXPECT_EQ(Query("[relay.isp.test]:465", kRelayDir + "sasl_passwd"), "me:pw");
  EXPECT_NE(access(senderPass.c_str(), F_OK), 0);
  EXPECT_EQ(qsvtest::ReadFile(kSender).substr(0, 19), "@xn--bcher-kva.test")
      << "the sender map is left alone outside mode multiple";

  ASSERT_EQ(SetMode("none"), 0);
  ASSERT_EQ(RelayHost().exportRelayMap(), 0);
  EXPECT_NE(access((kRelayDir + "sasl_passwd").c_str(), F_OK), 0);
}

TEST_F(RelayHostTest, RelayThatIsThisServerIsRefusedInEitherSpelling) {
  ASSERT_EQ(mailConfSet("smtp_hostname", "mx.bücher.test", true, 0), 0);
  qsvtest::SyslogCapture log;
  Json::Value single = Host("MX.xn--bcher-kva.test", 25, {});
  EXPECT_EQ(RelayHost().setSingleRelayHost(single), -1);
  EXPECT_EQ(log.Matching("relay hostname cannot be the same as hostname").size(), 1u);
  Json::Value byDomain = List({Host("xn--mller-kva.test", 25, {"domain:a.test"})});
  EXPECT_EQ(RelayHost().setSingleRelayHost(byDomain[0]), -1);

  Json::Value list = List(
      {Host("ok.relay.test", 25, {"domain:a.test"}), Host("example.test", 25, {"domain:b.test"})});
  EXPECT_EQ(RelayHost().setRelayHost("recipient", list), -1);
  EXPECT_EQ(log.Matching("relay hostname cannot be the same as doamin name").size(), 2u);
  std::list<RelayHostInfo> hosts;
  ASSERT_EQ(RelayHost().getRelayHost("recipient", hosts), 0);
  EXPECT_TRUE(hosts.empty()) << "a refused list is stored in part";

  RelayHostInfo info;
  bool isEmpty = false;
  ASSERT_EQ(RelayHost().getSingleRelayHost(info, isEmpty), 0);
  EXPECT_TRUE(isEmpty);
}

TEST_F(RelayHostTest, MissingHostOrPortOutOfRangeFailsTheExportAndKeepsTheOldMaps) {
  Json::Value good = List({Host("r0.relay.test", 25, {"domain:partner.test"})});
  ASSERT_EQ(RelayHost().setRelayHost("recipient", good), 0);
  ASSERT_EQ(SetMode("multiple"), 0);
  ASSERT_EQ(RelayHost().exportRelayMap(), 0);
  const std::string before = qsvtest::ReadFile(kTransport);

  Json::Value bad = List({Host("r0.relay.test", 65536, {"domain:other.test"})});
  ASSERT_EQ(RelayHost().setRelayHost("recipient", bad), 0);
  qsvtest::SyslogCapture log;
  EXPECT_EQ(RelayHost().exportRelayMap(), -1);
  // Mode "single" with no host set ("{}") has no relay to hand mail to.
  ASSERT_EQ(SetMode("single"), 0);
  EXPECT_EQ(RelayHost().exportRelayMap(), -1);
  EXPECT_EQ(log.Matching("[Relay Client] empty host or incorrect port number").size(), 2u);
  EXPECT_EQ(log.Matching("[Relay Client] export empty relay transport maps failed").size(), 1u);
  EXPECT_EQ(qsvtest::ReadFile(kTransport), before);
  EXPECT_EQ(Query("partner.test", kTransport), "relay-recipient0:[r0.relay.test]:25");
}

}  // namespace
