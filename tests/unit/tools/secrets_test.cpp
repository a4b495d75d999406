#include "tools/vexreg/secrets.h"

#include <gtest/gtest.h>

namespace vex {
namespace {

constexpr char kSecret[] = "s3cret-word";

TEST(Secrets, NoLineThatLetsSomebodyInKeepsItsValue) {
  // In every spelling that net-snmp takes, and in some that it does not.
  for (const std::string line :
       {"rocommunity s3cret-word",
        "rwcommunity s3cret-word 10.0.0.0/8 .1",
        "ROCommunity  s3cret-word default -V systemonly",
        "rocommunity6 s3cret-word",
        "rwcommunity6 \"s3cret-word\"",
        "\trocommunity\ts3cret-word",
        "rocommunity 's3cret-word'",
        "com2sec notConfigUser default s3cret-word",
        "com2sec6 -Cn context user ::/0 s3cret-word",
        "com2secunix user default s3cret-word",
        "trapsink 10.0.0.1 s3cret-word 162",
        "trap2sink 10.0.0.1 s3cret-word",
        "informsink 10.0.0.1 s3cret-word",
        "trapcommunity s3cret-word",
        "trapsess -v 2c -c s3cret-word 10.0.0.1",
        "trapsess -v 3 -u me -l authPriv -a SHA -A s3cret-word -X s3cret-word 10.0.0.1",
        "createUser me SHA s3cret-word AES s3cret-word",
        "createUser -e 0x80 me MD5 s3cret-word",
        "usmUser 1 3 0x80 0x6d65 0x6d65 NULL .1 s3cret-word .1 s3cret-word \"\"",
        "authcommunity log,execute s3cret-word",
        "defCommunity s3cret-word",
        "defPassphrase s3cret-word",
        "defAuthPassphrase s3cret-word",
        "defPrivPassphrase s3cret-word",
        "defAuthMasterKey s3cret-word",
        "defPrivLocalizedKey s3cret-word",
        "community s3cret-word",
        "proxy -v 2c -c s3cret-word 10.0.0.1 .1.3",
        "extend x /bin/tool --password s3cret-word",
        "exec x /bin/tool s3cret-word",
        "pass .1.3 /bin/tool s3cret-word",
        "smuxpeer .1.3 s3cret-word",
        "pass_persist .1.3 /bin/tool s3cret-word",
        "monitor -u me x s3cret-word",
        "[snmp] defCommunity s3cret-word",
        "[snmp]\ndefCommunity s3cret-word",
        "# rocommunity s3cret-word",
        "#rocommunity s3cret-word",
        "rocomunity s3cret-word",
        "rocommunity \\\n  s3cret-word",
        "roc\\\nommunity s3cret-word",
        "s3cret-word",
        "[s3cret-word",
        "rocommunity s3cret-word\r",
        "view all included .1 # s3cret-word\nrocommunity s3cret-word"}) {
    Secrets secrets;
    const std::string kept = WithoutSnmpSecrets(line + "\n", &secrets);
    EXPECT_EQ(kept.find(kSecret), std::string::npos) << line << ": " << kept;
    const std::string also = WithoutSnmpSecrets(line, &secrets);
    EXPECT_EQ(also.find(kSecret), std::string::npos) << line << ": " << also;
  }
}

TEST(Secrets, WhatTellsHowAgentsAreFoundStays) {
  Secrets secrets;
  EXPECT_EQ(WithoutSnmpSecrets("agentaddress 127.0.0.1,[::1]\n"
                               "master agentx\n"
                               "view systemonly included .1.3.6.1.4.1.4891\n"
                               "rocommunity public default -V systemonly\n"
                               "group readers v2c public\n",
                               &secrets),
            "agentaddress 127.0.0.1,[::1]\n"
            "master agentx\n"
            "view systemonly included .1.3.6.1.4.1.4891\n"
            "rocommunity (left out)\n"
            "group readers v2c (left out)\n");
  EXPECT_EQ(secrets, Secrets{"public"});
}

TEST(Secrets, AssignedOnesGo) {
  Secrets secrets;
  EXPECT_EQ(WithoutAssignedSecrets("ProductID=7\nAdminPassword=hunter22\nNAME=a", &secrets),
            "ProductID=7\nAdminPassword=\nNAME=a");
  EXPECT_EQ(secrets, Secrets{"hunter22"});
}

TEST(Secrets, AreFoundInOtherTexts) {
  const Secrets secrets = {"public", "s3cret-word", "a"};
  EXPECT_EQ(WithoutWords("public: not publicly, 's3cret-word' a", secrets),
            "(left out): not publicly, '(left out)' a");
  EXPECT_EQ(WithoutWords("", secrets), "");
}

}  // namespace
}  // namespace vex
