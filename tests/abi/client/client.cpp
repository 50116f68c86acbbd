// The smallest program of the package: it must need nothing but what is installed.

#include <receive_protocol.h>
#include <smtp.h>

#include <cstdio>

int main() {
  SMTP smtp;
  smtp.setHostName("mail.example");
  ReceiveProtocol protocol;
  protocol.setProtocol(IMAP, true);
  const bool works = smtp.getSMTPPort() == 25 && smtp.getHostName() == "mail.example" &&
                     protocol.getProtocol(IMAP) && !protocol.getProtocol(POP3);
  puts(works ? "client works" : "client does not work");
  return works ? 0 : 1;
}
