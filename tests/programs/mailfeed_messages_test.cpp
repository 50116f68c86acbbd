// The rule by which Postfix's lines become records: one test a kind of mail, with lines
// as Postfix 3.7 writes them.

#include <gtest/gtest.h>

#include <ctime>
#include <sstream>

#include "log_reader.h"
#include "state_file.h"

namespace {

using testing::Test;

const char *const kNames[] = {"sent", "received", "bounced", "resent"};

class Rule : public Test {
 protected:
  Rule() {
    setenv("TZ", "UTC", 1);
    tzset();
    reader_.stamps().writtenBy(1795244400);  // 21 November 2026
  }

  // Lines of one second, as "smtp ID: text".
  void log(const std::string &service, const std::string &text) {
    line("Nov 21 02:04:20 mail postfix/" + service + "[123]: " + text);
  }
  void line(const std::string &text) { reader_.take(text, &deliveries_); }

  // What was recorded since: a line "status queue-id message-id <from> <to> size" each.
  std::string took() {
    std::ostringstream text;
    for (const Delivery &d : deliveries_)
      text << kNames[d.status] << ' ' << d.queueId << ' ' << d.messageId << " <" << d.from
           << "> <" << d.to << "> " << d.size << '\n';
    deliveries_.clear();
    return text.str();
  }

  void arrive(const std::string &id, const std::string &from = "a@example.org") {
    log("smtpd", id + ": client=localhost[127.0.0.1]");
    log("cleanup", id + ": message-id=<" + id + "@x>");
    log("qmgr", id + ": from=<" + from + ">, size=450, nrcpt=1 (queue active)");
  }

  // The end of a delivery's line.
  static std::string to(const std::string &address, const std::string &relay,
                        const std::string &result) {
    return ": to=<" + address + ">, relay=" + relay +
           ", delay=0.06, delays=0.01/0.02/0.03/0.01, dsn=2.0.0, status=" + result;
  }
  static std::string deferred(const std::string &address) {
    return to(address, "none", "deferred (connect to 192.0.2.1[192.0.2.1]:25: refused)");
  }

  uint64_t notUnderstood() const { return reader_.counters().notUnderstood; }
  std::vector<const Message *> messages() const { return reader_.messages().all(); }

  LogReader reader_;
  std::vector<Delivery> deliveries_;
};

const std::string kDovecot = "mail.example.org[private/dovecot-lmtp]";
const std::string kId = "4jWjz14cZhz1cQJy";

TEST_F(Rule, Received) {
  arrive(kId);
  log("local", kId + ": passing <bob@example.org> to transport=lmtp");
  log("lmtp", kId + to("bob@example.org", kDovecot,
                       "sent (250 2.0.0 <bob@example.org> eRROKe1DAWs3Ag Saved)"));
  EXPECT_EQ(took(),
            "received " + kId + " " + kId + "@x <a@example.org> <bob@example.org> 450\n");
  log("qmgr", kId + ": removed");
  EXPECT_TRUE(messages().empty());
  EXPECT_EQ(deliveries_.size(), 0u);
}

TEST_F(Rule, TheTimeIsTheLines) {
  arrive(kId);
  line("2026-11-21T03:16:49.826432+01:00 mail postfix/lmtp[7]: " + kId +
       to("b@x", kDovecot, "sent (ok)"));
  ASSERT_EQ(deliveries_.size(), 1u);
  EXPECT_EQ(deliveries_[0].time, 1795227409);
  EXPECT_EQ(reader_.counters().lastTime, 1795227409);
  EXPECT_EQ(reader_.counters().lines, 4u);
}

TEST_F(Rule, ReceivedByWhateverDeliversHere) {
  arrive("70B63A8E401");
  const std::string row = " 70B63A8E401 70B63A8E401@x <a@example.org> <b@x> 450\n";
  log("local", "70B63A8E401" + to("b@x", "local", "sent (delivered to maildir)"));
  EXPECT_EQ(took(), "received" + row);
  log("virtual", "70B63A8E401" + to("b@x", "virtual", "sent (delivered to maildir)"));
  EXPECT_EQ(took(), "received" + row);
  log("pipe",
      "70B63A8E401" + to("b@x", "dovecot", "sent (delivered via dovecot service)"));
  EXPECT_EQ(took(), "received" + row);
  log("lmtp",
      "70B63A8E401" + to("b@x", "store.example.org[192.0.2.9]:24", "sent (250 ok)"));
  EXPECT_EQ(took(), "sent" + row);
}

TEST_F(Rule, Sent) {
  arrive(kId);
  log("smtp", kId + to("f@example.net", "mx.example.net[192.0.2.7]:25",
                       "sent (250 2.0.0 Ok: queued as 12345)"));
  log("relay/smtp", kId +
                        ": to=<g@example.net>, orig_to=<team@example.org>, "
                        "relay=mx.example.net[2001:db8::7]:25, conn_use=2, delay=0.1, "
                        "delays=0/0/0/0.1, dsn=2.0.0, status=sent (250 2.0.0 Ok)");
  EXPECT_EQ(took(), "sent " + kId + " " + kId +
                        "@x <a@example.org> <f@example.net> 450\n" + "sent " + kId + " " +
                        kId + "@x <a@example.org> <g@example.net> 450\n");
}

TEST_F(Rule, BouncedAndTheReportOfIt) {
  arrive(kId);
  log("smtp", kId + to("f@example.net", "mx.example.net[192.0.2.7]:25",
                       "bounced (host mx.example.net[192.0.2.7] said: 550 5.1.1 no "
                       "(in reply to RCPT TO command))"));
  log("cleanup", "4jWjz15Tkvz1cQKb: message-id=<4jWjz15Tkvz1cQKb@mail.example.org>");
  log("bounce", kId + ": sender non-delivery notification: 4jWjz15Tkvz1cQKb");
  log("qmgr", "4jWjz15Tkvz1cQKb: from=<>, size=2404, nrcpt=1 (queue active)");
  log("qmgr", kId + ": removed");
  log("lmtp", "4jWjz15Tkvz1cQKb" + to("a@example.org", kDovecot, "sent (250 Saved)"));
  EXPECT_EQ(took(), "bounced " + kId + " " + kId +
                        "@x <a@example.org> <f@example.net> 450\n"
                        "received 4jWjz15Tkvz1cQKb 4jWjz15Tkvz1cQKb@mail.example.org <> "
                        "<a@example.org> 2404\n");
}

TEST_F(Rule, BouncedByAnyProgram) {
  arrive(kId);
  for (const char *service : {"error", "local", "cleanup", "qmgr", "pipe"}) {
    log(service, kId + to("b@x", "none", "bounced (x)"));
    EXPECT_EQ(took(), "bounced " + kId + " " + kId + "@x <a@example.org> <b@x> 450\n");
  }
}

TEST_F(Rule, DeferredThenSent) {
  arrive(kId);
  log("smtp", kId + deferred("f@example.net"));
  log("qmgr", kId + ": from=<a@example.org>, size=450, nrcpt=1 (queue active)");
  log("error", kId + deferred("f@example.net"));
  log("smtp", kId + to("f@example.net", "mx[192.0.2.7]:25", "sent (250 Ok)"));
  log("qmgr", kId + ": removed");
  const std::string row =
      " " + kId + " " + kId + "@x <a@example.org> <f@example.net> 450\n";
  EXPECT_EQ(took(), "resent" + row + "resent" + row + "sent" + row);
}

TEST_F(Rule, ExpiredBouncesWhoIsStillDeferred) {
  for (const char *word : {"expired", "force-expired"}) {
    arrive(kId);
    log("smtp", kId + deferred("f@x"));
    log("smtp", kId + deferred("g@x"));
    log("smtp", kId + deferred("h@x"));
    log("smtp", kId + to("g@x", "mx[192.0.2.7]:25", "sent (250 Ok)"));
    took();
    log("qmgr", kId + ": from=<a@example.org>, status=" + word + ", returned to sender");
    log("qmgr", kId + ": removed");
    const std::string row = "bounced " + kId + " " + kId + "@x <a@example.org> ";
    EXPECT_EQ(took(), row + "<f@x> 450\n" + row + "<h@x> 450\n");
    EXPECT_TRUE(messages().empty());
  }
}

TEST_F(Rule, ASoftBounceIsPutOff) {
  arrive(kId);
  log("smtp", kId + to("f@x", "mx[192.0.2.7]:25", "SOFTBOUNCE (host said: 550 no)"));
  EXPECT_EQ(took(), "resent " + kId + " " + kId + "@x <a@example.org> <f@x> 450\n");
}

TEST_F(Rule, ForwardedLogsUnderItsNewIdAlone) {
  arrive("4jWjz60z9Kz1cQLx");
  log("cleanup", "4jWjz612Rbz1cQLy: message-id=<same@x>");
  log("local",
      "4jWjz60z9Kz1cQLx" + to("al@x", "local", "sent (forwarded as 4jWjz612Rbz1cQLy)"));
  log("qmgr", "4jWjz612Rbz1cQLy: from=<a@example.org>, size=551, nrcpt=2 (queue active)");
  log("lmtp", "4jWjz612Rbz1cQLy: to=<bob@x>, orig_to=<al@x>, relay=" + kDovecot +
                  ", delay=0.1, delays=0/0/0.1/0, dsn=2.0.0, status=sent (250 Saved)");
  EXPECT_EQ(took(), "received 4jWjz612Rbz1cQLy same@x <a@example.org> <bob@x> 551\n");
}

TEST_F(Rule, NothingForACommand) {
  arrive(kId);
  log("local",
      kId + to("al@x", "local", "sent (delivered to command: /usr/bin/vacation al)"));
  EXPECT_EQ(took(), "");
  log("local", kId + to("al@x", "local", "sent (delivered to file: /dev/null)"));
  EXPECT_NE(took(), "");
}

TEST_F(Rule, NothingForAContentFilterOfThisMachine) {
  arrive(kId);
  for (const char *relay : {"127.0.0.1[127.0.0.1]:10024", "localhost[::1]:10029"})
    log("smtp", kId + to("b@x", relay, "sent (250 Ok)"));
  EXPECT_EQ(took(), "");
  for (const char *relay : {"127.0.0.1[127.0.0.1]:2500", "127.0.0.1[127.0.0.1]:100240",
                            "mx[192.0.2.1]:10024", "127.0.0.1[127.0.0.1]:1002"}) {
    log("smtp", kId + to("b@x", relay, "sent (250 Ok)"));
    EXPECT_NE(took(), "") << relay;
  }
}

TEST_F(Rule, NothingForAProbeOrADiscard) {
  arrive(kId);
  log("smtp", kId + to("b@x", "mx[192.0.2.7]:25", "deliverable (250 Ok)"));
  log("smtp", kId + to("b@x", "mx[192.0.2.7]:25", "undeliverable (550 no)"));
  log("discard", kId + to("b@x", "none", "sent (unwanted)"));
  EXPECT_EQ(took(), "");
  EXPECT_EQ(notUnderstood(), 0u);
}

TEST_F(Rule, NothingForARefusedRecipient) {
  log("smtpd",
      "NOQUEUE: reject: RCPT from localhost[127.0.0.1]: 550 5.1.1 <no@x>: Recipient "
      "address rejected: User unknown; from=<a@x> to=<no@x> proto=ESMTP helo=<x>");
  log("smtpd",
      kId + ": reject: RCPT from x[192.0.2.1]: 550 <no@x>: no; from=<a@x> to=<no@x>");
  EXPECT_EQ(took(), "");
  EXPECT_EQ(notUnderstood(), 0u);
  EXPECT_TRUE(messages().empty());
}

TEST_F(Rule, RefusedContentIsForgotten) {
  for (const char *text :
       {": milter-reject: END-OF-MESSAGE from x[192.0.2.1]: 5.7.1 infected; from=<a@x>",
        ": milter-discard: END-OF-MESSAGE from x[192.0.2.1]: milter triggers DISCARD",
        ": reject: header Subject: bad from x[192.0.2.1]; from=<a@x>: 5.7.1 refused",
        ": discard: header Subject: drop from x[192.0.2.1]; from=<a@x>"}) {
    log("smtpd", kId + ": client=x[192.0.2.1]");
    log("cleanup", kId + ": message-id=<m@x>");
    EXPECT_EQ(messages().size(), 1u);
    log("cleanup", kId + text);
    EXPECT_TRUE(messages().empty()) << text;
  }
  log("cleanup", kId + ": message-id=<m@x>");
  log("cleanup", kId + ": milter-reject: RCPT from x[192.0.2.1]: 5.7.1 not this one");
  EXPECT_EQ(messages().size(), 1u);  // the message goes on
}

TEST_F(Rule, RemovedByTheAdministrator) {
  arrive(kId);
  log("postsuper", kId + ": removed");
  EXPECT_TRUE(messages().empty());
}

// ---- What is known of a message

TEST_F(Rule, NoMessageId) {
  log("cleanup", kId + ": message-id=<>");
  log("qmgr", kId + ": from=<a@x>, size=5, nrcpt=1 (queue active)");
  log("lmtp", kId + to("b@x", kDovecot, "sent (ok)"));
  EXPECT_EQ(took(), "received " + kId + "  <a@x> <b@x> 5\n");
  log("qmgr", "4jWjz14cZhz1cQJz: from=<a@x>, size=5, nrcpt=1 (queue active)");
  log("lmtp", "4jWjz14cZhz1cQJz" + to("b@x", kDovecot, "sent (ok)"));
  EXPECT_EQ(took(), "received 4jWjz14cZhz1cQJz  <a@x> <b@x> 5\n");
}

TEST_F(Rule, ADeliveryOfAnUnknownMessageIsStillRecorded) {
  log("lmtp", kId + to("b@x", kDovecot, "sent (ok)"));
  log("smtp", kId + deferred("c@x"));
  EXPECT_EQ(took(), "received " + kId + "  <> <b@x> 0\nresent " + kId + "  <> <c@x> 0\n");
}

TEST_F(Rule, TheFirstMessageIdCountsAndResentOnesDoNot) {
  log("cleanup", kId + ": resent-message-id=<resent@x>");
  log("cleanup", kId + ": message-id=<first@x> (comment)");
  log("cleanup", kId + ": message-id=<second@x>");
  log("lmtp", kId + to("b@x", kDovecot, "sent (ok)"));
  EXPECT_EQ(took(), "received " + kId + " <first@x> (comment) <> <b@x> 0\n");
}

TEST_F(Rule, AQueueIdThatIsUsedAgain) {
  const std::string id = "A1B2C3";
  arrive(id, "old@x");
  log("smtp", id + deferred("f@x"));
  took();
  log("smtpd", id + ": client=localhost[127.0.0.1]");
  log("lmtp", id + to("b@x", kDovecot, "sent (ok)"));
  EXPECT_EQ(took(), "received A1B2C3  <> <b@x> 0\n");
  arrive(id, "old@x");
  log("pickup", id + ": uid=0 from=<root>");
  EXPECT_TRUE(messages().empty());
  arrive(id, "old@x");
  log("smtp", id + deferred("f@x"));
  took();
  log("cleanup", id + ": message-id=<new@x>");  // a message of Postfix's own
  log("qmgr", id + ": from=<>, size=7, nrcpt=1 (queue active)");
  log("qmgr", id + ": from=<>, status=expired, returned to sender");
  EXPECT_EQ(took(), "");  // f@x was the old one's
  log("lmtp", id + to("b@x", kDovecot, "sent (ok)"));
  EXPECT_EQ(took(), "received A1B2C3 new@x <> <b@x> 7\n");
}

TEST_F(Rule, QueueIdsHaveSixToTwentyLettersAndDigits) {
  const std::string rest = to("b@x", kDovecot, "sent (ok)");
  for (const char *id :
       {"A1B2C3", "70B63A8E401", "4jWjz14cZhz1cQJy", "aaaaaaaaaaaaaaaaaaa9"}) {
    log("lmtp", id + rest);
    EXPECT_EQ(took(), std::string("received ") + id + "  <> <b@x> 0\n");
  }
  for (const char *id : {"A1B2C", "aaaaaaaaaaaaaaaaaaa90", "A1B2C-", ""}) {
    log("lmtp", id + rest);
    EXPECT_EQ(took(), "") << id;
  }
}

TEST_F(Rule, OtherInstancesAndHosts) {
  line("Nov 21 02:04:20 2001:db8::1 postfix-out/relay/smtp[1]: " + kId +
       to("b@x", "mx[192.0.2.7]:25", "sent (ok)"));
  EXPECT_NE(took(), "");
}

// ---- What strangers may write

TEST_F(Rule, AnAddressThatLooksLikeTheRestOfTheLine) {
  const std::string evil = "\"x>, relay=none, delay=0, dsn=2.0.0, status=bounced (y\"@z";
  log("qmgr", kId +
                  ": from=<\"a>, size=1, nrcpt=1 (queue active)\"@x>, size=318, nrcpt=1 "
                  "(queue active)");
  log("lmtp", kId + to(evil, kDovecot, "sent (ok)"));
  EXPECT_EQ(took(), "received " + kId + "  <\"a>, size=1, nrcpt=1 (queue active)\"@x> <" +
                        evil + "> 318\n");
  log("lmtp", kId + to("\"a\\\">, relay=\"@z", kDovecot, "sent (ok)"));
  EXPECT_EQ(took().substr(0, 8), "received");
}

TEST_F(Rule, ARemoteServersReplyDecidesNothing) {
  log("smtp", kId + to("b@x", "mx[192.0.2.7]:25",
                       "sent (250 Ok, status=bounced (forwarded as ABCDEF))"));
  EXPECT_EQ(took(), "sent " + kId + "  <> <b@x> 0\n");
}

TEST_F(Rule, TextsAreBoundedAndClean) {
  log("cleanup", kId + ": message-id=<a\xff\x01\xc3\xbc" + std::string(2000, 'x') + ">");
  log("qmgr",
      kId + ": from=<" + std::string(254, 'f') + "\xc3\xbc@x>, size=1, nrcpt=1 ()");
  log("lmtp", kId + to(std::string(300, 't'), kDovecot, "sent (ok)"));
  ASSERT_EQ(deliveries_.size(), 1u);
  EXPECT_EQ(deliveries_[0].messageId, "a\?\?\xc3\xbc" + std::string(506, 'x'));
  EXPECT_EQ(deliveries_[0].from, std::string(254, 'f'));
  EXPECT_EQ(deliveries_[0].to, std::string(255, 't'));
}

TEST_F(Rule, HugeNumbers) {
  log("qmgr", kId + ": from=<a@x>, size=99999999999999999999999, nrcpt=1 (queue active)");
  log("lmtp", kId + to("b@x", kDovecot, "sent (ok)"));
  ASSERT_EQ(deliveries_.size(), 1u);
  EXPECT_EQ(deliveries_[0].size, 999999999999999999);
}

// ---- Lines that are not understood

TEST_F(Rule, LinesOfOthersAreNoMistake) {
  for (const char *text :
       {"", " ", "x", "Nov 21 02:04:20", "Nov 21 02:04:20 mail", "no time stamp at all",
        "Nov 21 02:04:20 mail dovecot: imap-login: Login: user=<a>, method=PLAIN",
        "Nov 21 02:04:20 mail postfix/postfix-script[9]: starting the Postfix mail "
        "system",
        "Nov 21 02:04:20 mail postfix/smtpd[9]: connect from localhost[127.0.0.1]",
        "Nov 21 02:04:20 mail postfix/scache[9]: statistics: domain lookup hits=1",
        "Nov 21 02:04:20 mail postfix/qmgr[9]: warning: x (y)"})
    line(text);
  EXPECT_EQ(took(), "");
  EXPECT_EQ(notUnderstood(), 0u);
  EXPECT_EQ(reader_.counters().lines, 11u);
}

TEST_F(Rule, DeliveriesOfAnUnknownFormAreCounted) {
  const std::string rest = kId + to("b@x", kDovecot, "sent (ok)");
  const std::string lines[] = {
      "21.11.2026 02:04:20 mail postfix/lmtp[123]: " + rest,
      "Nov 21 02:04:20 mail postfix/lmtp: " + rest,
      "Nov 21 02:04:20 mail postfix/lmtp[123]: x" + std::string(20, 'y') + rest,
      "Nov 21 02:04:20 mail postfix/lmtp[123]: " + kId + ": to=<b@x>, status=sent (ok)",
      "Nov 21 02:04:20 mail postfix/lmtp[123]: " + kId + ": to=<b@x",
      "Nov 21 02:04:20 mail postfix/lmtp[123]: " + kId + ": to=<b@x>, relay=x, dsn=1",
      "Nov 21 02:04:20 mail postfix/lmtp[123]: " + kId + ": to=<b@x>, relay=x, status=",
      "Nov 21 02:04:20 mail postfix/qmgr[123]: " + kId + ": from=<b@x>, sise=3",
      "Nov 21 02:04:20 mail postfix/qmgr[123]: " + kId + ": from=<b@x>, size=x",
      "Nov 21 02:04:20 mail postfix/qmgr[123]: " + kId + ": from=<b@x"};
  uint64_t count = 0;
  for (const std::string &text : lines) {
    line(text);
    EXPECT_EQ(notUnderstood(), ++count) << text;
    EXPECT_EQ(reader_.counters().lastNotUnderstood, text);
  }
  EXPECT_EQ(took(), "");
}

TEST_F(Rule, OfALineThatIsNotUnderstoodAThousandBytesAreShown) {
  const std::string text =
      "x: to=<" + std::string(2000, 'b') + ">, relay=x, status=sent (ok)";
  line(text);
  EXPECT_EQ(reader_.counters().lastNotUnderstood, text.substr(0, 1000));
}

// ---- Messages that never end

TEST_F(Rule, AFloodOfMessagesInTheQueueIsBounded) {
  for (int i = 0; i < 50000; ++i) arrive("Q" + std::to_string(100000 + i));
  EXPECT_EQ(messages().size(), 20000u);
  EXPECT_EQ(reader_.messages().forgotten(), 30000u);
  log("lmtp", "Q149999" + to("b@x", kDovecot, "sent (ok)"));
  log("lmtp", "Q130000" + to("b@x", kDovecot, "sent (ok)"));
  log("lmtp", "Q129999" + to("b@x", kDovecot, "sent (ok)"));
  EXPECT_EQ(took(),
            "received Q149999 Q149999@x <a@example.org> <b@x> 450\n"
            "received Q130000 Q130000@x <a@example.org> <b@x> 450\n"
            "received Q129999  <> <b@x> 0\n");
}

// Strangers can begin as many messages as they like.
TEST_F(Rule, WhatNeverReachesTheQueueDisplacesNothingThatHas) {
  arrive("FIRST1");
  log("smtp", "FIRST1" + deferred("f@x"));
  took();
  for (int i = 0; i < 50000; ++i)
    log("cleanup", "Q" + std::to_string(100000 + i) + ": message-id=<x@x>");
  EXPECT_EQ(messages().size(), 1001u);
  EXPECT_EQ(reader_.messages().forgotten(), 49000u);
  log("qmgr", "FIRST1: from=<a@example.org>, status=expired, returned to sender");
  EXPECT_EQ(took(), "bounced FIRST1 FIRST1@x <a@example.org> <f@x> 450\n");
  log("lmtp", "Q149000" + to("b@x", kDovecot, "sent (ok)"));
  log("lmtp", "Q148999" + to("b@x", kDovecot, "sent (ok)"));
  EXPECT_EQ(took(), "received Q149000 x@x <> <b@x> 0\nreceived Q148999  <> <b@x> 0\n");
}

TEST_F(Rule, WhoIsStillHeardOfIsKept) {
  arrive("FIRST1");
  for (int i = 0; i < 30000; ++i) {
    arrive("Q" + std::to_string(100000 + i));
    if (i == 15000) log("smtp", "FIRST1" + deferred("f@x"));
  }
  took();
  log("smtp", "FIRST1" + to("f@x", "mx[192.0.2.7]:25", "sent (ok)"));
  EXPECT_EQ(took(), "sent FIRST1 FIRST1@x <a@example.org> <f@x> 450\n");
}

TEST_F(Rule, LongTextsAreBoundedInAll) {
  const std::string longText(500, 'm');
  for (int i = 0; i < 19000; ++i) {
    const std::string id = "Q" + std::to_string(100000 + i);
    log("cleanup", id + ": message-id=<" + longText + ">");
    log("qmgr", id + ": from=<" + longText + ">, size=1, nrcpt=1 (queue active)");
    log("smtp", id + deferred(longText));
  }
  EXPECT_LT(messages().size(), 15000u);
  EXPECT_GT(messages().size(), 10000u);
  EXPECT_GT(reader_.messages().forgotten(), 0u);
}

TEST_F(Rule, OneMessageWithEndlessRecipientsIsBounded) {
  arrive(kId);
  for (int i = 0; i < 200000; ++i) {
    log("smtp", kId + deferred("user" + std::to_string(i) + "@example.net"));
    deliveries_.clear();
  }
  ASSERT_EQ(messages().size(), 1u);
  EXPECT_LT(messages().front()->deferred.size(), 150000u);
  EXPECT_GT(messages().front()->deferred.size(), 100000u);
}

// What a message takes is counted when it changes, too: else the limit would be reached
// one day without anything that needs the room, and everything be forgotten.
TEST_F(Rule, ASenderThatIsToldAgainAndAgainTakesNoFurtherRoom) {
  arrive("FIRST1");
  const std::string sender = std::string(250, 'a') + "@x";
  for (int i = 0; i < 80000; ++i) {  // more than 16 MB in all
    log("qmgr", kId + ": from=<" + sender + ">, size=450, nrcpt=1 (queue active)");
    if (i % 2 == 0) log("qmgr", kId + ": from=<>, size=450, nrcpt=1 (queue active)");
  }
  arrive("SECOND");  // is there still room?
  EXPECT_EQ(reader_.messages().forgotten(), 0u);
  EXPECT_EQ(messages().size(), 3u);
}

TEST_F(Rule, RecipientsThatAreNotTriedAnyLongerTakeNoRoom) {
  arrive("FIRST1");
  arrive(kId);
  const std::string recipient = std::string(250, 'b') + "@x";
  for (int i = 0; i < 60000; ++i) {  // more than 16 MB in all
    log("smtp", kId + deferred(recipient));
    log("smtp", kId + to(recipient, "mx[192.0.2.7]:25", "sent (ok)"));
    deliveries_.clear();
  }
  EXPECT_EQ(reader_.messages().forgotten(), 0u);
  EXPECT_EQ(messages().size(), 2u);
}

// The line before the restart is not remembered, but the time that had passed is.
TEST_F(Rule, ARestartMakesNothingOlder) {
  arrive(kId);
  line("2026-11-21T03:04:20Z mail postfix/cleanup[1]: FFFFFF: message-id=<f@x>");
  for (int i = 0; i < 200; ++i) {  // hours in a week: 168
    Position position;
    LogReader next;
    ASSERT_TRUE(parseState(stateText(position, reader_), &position, &next));
    reader_ = std::move(next);
    line("2026-11-21T03:04:20Z mail postfix/cleanup[1]: FFFFFF: message-id=<f@x>");
  }
  EXPECT_EQ(reader_.messages().clock(), 3600);
  line("2026-11-21T03:04:20Z mail postfix/lmtp[1]: " + kId +
       to("b@x", kDovecot, "sent (ok)"));
  EXPECT_EQ(took(), "received " + kId + " " + kId + "@x <a@example.org> <b@x> 450\n");
}

TEST_F(Rule, BetweenTwoLinesAnHourPassesAtMostAndNeverLessThanNothing) {
  const auto passed = [this](const std::string &stamp) {
    line(stamp + " mail postfix/cleanup[1]: FFFFFF: message-id=<f@x>");
    return reader_.messages().clock();
  };
  EXPECT_EQ(passed("2026-11-21T02:00:00Z"), 0);
  EXPECT_EQ(passed("2026-11-21T02:59:59Z"), 3599);
  EXPECT_EQ(passed("2026-11-22T02:59:59Z"), 3599 + 3600);
  EXPECT_EQ(passed("2026-11-22T02:00:00Z"), 3599 + 3600);
  EXPECT_EQ(passed("2026-11-22T02:00:01Z"), 3599 + 3600 + 1);
}

TEST_F(Rule, AMessageIsAsYoungAsItsFirstLine) {
  for (int day = 10; day < 30; ++day)
    for (int hour = 10; hour < 24; ++hour)
      line("2026-12-" + std::to_string(day) + "T" + std::to_string(hour) +
           ":00:00Z mail postfix/cleanup[1]: FFFFFF: message-id=<f@x>");
  ASSERT_GT(reader_.messages().clock(), 8 * 86400);
  const std::string start = "2026-12-30T00:00:00Z mail postfix/";
  line(start + "qmgr[1]: FFFFFF: removed");
  line(start + "cleanup[1]: " + kId + ": message-id=<m@x>");
  line(start + "cleanup[1]: EEEEEE: message-id=<e@x>");
  line(start + "lmtp[1]: " + kId + to("b@x", kDovecot, "sent (ok)"));
  EXPECT_EQ(took(), "received " + kId + " m@x <> <b@x> 0\n");
}

TEST_F(Rule, WhatHasExpiredIsDeferredNoMore) {
  arrive(kId);
  log("smtp", kId + deferred("f@x"));
  const std::string expired =
      kId + ": from=<a@example.org>, status=expired, returned to sender";
  log("qmgr", expired);
  took();
  log("qmgr", expired);
  EXPECT_EQ(took(), "");
}

TEST_F(Rule, AMessageIsKnownForFiveDaysAndForgottenAfterAWeek) {
  line("2026-11-01T00:00:00Z mail postfix/cleanup[1]: A1B2C3: message-id=<m@x>");
  const auto hours = [this](int from, int to) {
    for (int hour = from; hour < to; ++hour) {
      const std::string day = std::to_string(101 + hour / 24).substr(1);
      const std::string of = std::to_string(100 + hour % 24).substr(1);
      line("2026-11-" + day + "T" + of +
           ":00:00Z mail postfix/cleanup[1]: FFFFFF: message-id=<f@x>");
    }
  };
  hours(0, 5 * 24);
  line("2026-11-06T00:00:00Z mail postfix/lmtp[1]: A1B2C3" +
       to("b@x", kDovecot, "sent (ok)"));
  EXPECT_EQ(took(), "received A1B2C3 m@x <> <b@x> 0\n");
  hours(5 * 24, 12 * 24);
  line("2026-11-13T00:00:00Z mail postfix/cleanup[1]: EEEEEE: message-id=<e@x>");
  EXPECT_EQ(messages().size(), 3u);
  line("2026-11-13T00:00:01Z mail postfix/cleanup[1]: DDDDDD: message-id=<d@x>");
  EXPECT_EQ(messages().size(), 3u);  // A1B2C3 is gone
  EXPECT_EQ(messages().front()->queueId, "FFFFFF");
}

TEST_F(Rule, AClockThatJumpsMakesNothingOld) {
  arrive(kId);
  line("2037-01-01T00:00:00Z mail postfix/cleanup[1]: FFFFFF: message-id=<f@x>");
  line("1970-01-01T00:00:00Z mail postfix/cleanup[1]: EEEEEE: message-id=<e@x>");
  line("2026-11-21T00:00:00Z mail postfix/cleanup[1]: DDDDDD: message-id=<d@x>");
  log("lmtp", kId + to("b@x", kDovecot, "sent (ok)"));
  EXPECT_EQ(took(), "received " + kId + " " + kId + "@x <a@example.org> <b@x> 450\n");
}

}  // namespace
