// postwell spam show|set: how the spam filter judges mail, and what becomes of spam.

#include <cmath>
#include <iostream>

#include "command.h"
#include "nouns.h"
#include "protection.h"
#include "spam_rules.h"

namespace {

// As SpamAssassin numbers them.
const std::vector<std::string> kReports = {"headers", "attachment", "text"};

std::string reportWord(int report) {
  const auto index = static_cast<size_t>(report);  // a negative one is large
  return index < kReports.size() ? kReports[index]
                                 : "unknown (" + std::to_string(report) + ')';
}

// The number that the file has, where a float has only one near it.
double twoDecimals(float score) {
  return std::round(static_cast<double>(score) * 100) / 100;
}

Values describe(const Spam &spam) {
  return {{"enabled", spam.isEnableSpamassassin()},
          {"score", twoDecimals(spam.getRequiredScore())},
          {"rewrite", spam.isEnableRewrite()},
          {"subject", spam.getRewriteSubject()},
          {"report", reportWord(spam.getReportMachanism())},
          {"auto_learn", spam.isUseAutoLearn()},
          {"learn_spam", twoDecimals(spam.getSpamLearnThreshold())},
          {"learn_ham", twoDecimals(spam.getNonSpamLearnThreshold())},
          {"auto_whitelist", spam.isUseAutoWhiteList()}};
}

void runSet(const SetCommand<Spam> &set) {
  Spam &spam = spamFilter();
  set.apply(spam);
  if (spam.getNonSpamLearnThreshold() >= spam.getSpamLearnThreshold())
    throw Failure(kWrongUsage, "--learn-ham must be below --learn-spam");
  if (spam.applySettings() != 0)
    throw Failure(
        kFailed,
        "the settings could not be stored, or the spam filter cannot follow them.\n"
        "Run as root. A line above or the system log tells which step failed;\n"
        "correct the cause and set them again.");
  configurePostfix();
  runFilters();
  std::cout << "Spam filter " << onOff(spam.isEnableSpamassassin())
            << "; SpamAssassin and Postfix follow.\n";
}

}  // namespace

void addSpam(CLI::App &app) {
  CLI::App &noun = addNoun(app, "spam", "The spam filter (SpamAssassin)");
  addShow(noun, [] { return describe(spamFilter()); });

  SetCommand<Spam> set(noun);
  set.option<bool>("--enabled", "Whether mail is judged", yesNo(),
                   &Spam::setEnableSpamassassin);
  set.option<float>("--score", "The score from which mail is spam", positiveScore(),
                    &Spam::setRequiredScore);
  set.option<bool>("--rewrite", "Put the tag before the subject of spam", yesNo(),
                   &Spam::setEnableRewrite);
  set.option<std::string>("--subject", "The tag", subjectTag(), &Spam::setRewriteSubject);
  set.option<int>("--report",
                  "Where the report stands: in headers alone, or in a new message with\n"
                  "the spam attached to it as a message or as text",
                  oneOf(kReports), &Spam::setReportMachanism);
  set.option<bool>("--auto-learn", "Learn from what is clearly spam or not", yesNo(),
                   &Spam::setUseAutoLearn);
  set.option<float>("--learn-spam", "The score from which mail is learnt as spam",
                    score(), &Spam::setSpamLearnThreshold);
  set.option<float>("--learn-ham", "The score below which it is learnt as wanted",
                    score(), &Spam::setNonSpamLearnThreshold);
  set.option<bool>("--auto-whitelist", "Let a sender's earlier mail count", yesNo(),
                   &Spam::setUseAutoWhiteList);
  set.callback([set] { runSet(set); });
  addSpamRules(noun);
}
