#!/bin/bash
# Hidden copies by the real Postfix: of mail from a sender, to a recipient, of all mail.
# Removing the rule ends them with the next message.
# shellcheck source=../lib.sh
. "$(dirname "$0")/../lib.sh"
addUsers alice bob boss archive
startMail

# mail OPTION...: to alice, and it reaches her; the message's word is then in $word.
mail() {
  word=$(token)
  expect send --to "alice@$DOMAIN" --h-Subject "$word" "$@"
  waitFor inMailbox alice "$word"
}
# copied USER: a copy is there, once. notCopied USER: what would have been copied is not.
copied() { waitFor inMailbox "$1" "$word"; }
notCopied() {
  waitFor settled
  refute inMailbox "$1" "$word"
}

step "of mail from a sender"
expect postwell bcc add sender Sender@elsewhere.example boss
mail
copied boss
mail --from other@elsewhere.example
notCopied boss
expect postwell bcc remove sender Sender@elsewhere.example
mail
notCopied boss

step "of mail to a recipient, by address and by account in every local domain"
expect postwell bcc add recipient "alice@$DOMAIN" "archive@$DOMAIN"
mail
copied archive
expect postwell bcc remove recipient "alice@$DOMAIN"
expect postwell domain add second.example
expect postwell bcc add recipient alice archive
mail
copied archive
mail --to alice@second.example
copied archive
expect postwell bcc remove recipient alice
mail
notCopied archive

step "of mail from an account"
expect postwell bcc add sender bob boss
mail --from "bob@$DOMAIN"
copied boss
mail --from bob@elsewhere.example  # another bob
notCopied boss
expect postwell bcc remove sender bob

step "of all mail"
expect postwell bcc always set boss
mail
copied boss
expect postwell bcc always off
mail
notCopied boss

step "to an address elsewhere"
expect postwell bcc add sender bob copies@outside.example
mail --from "bob@$DOMAIN"
waitFor mailLogged "to=<copies@outside.example>"
# it stays in the queue, as nothing leads there
