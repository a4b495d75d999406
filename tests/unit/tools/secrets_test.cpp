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

// A community of two characters, or of digits, is one.
TEST(Secrets, CommunitiesAreSecretsHoweverShort) {
  for (const char *line :
       {"rocommunity 42", "com2sec user default 42", "trap2sink 10.0.0.1 42", "community 42",
        "defCommunity 42", "trapcommunity 42", "authcommunity log 42",
        "trapsess -v 2c -c 42 10.0.0.1", "proxy -v 2c -c42 10.0.0.1 .1.3"}) {
    Secrets secrets;
    EXPECT_EQ(WithoutSnmpSecrets(line, &secrets).find("42"), std::string::npos) << line;
    EXPECT_EQ(secrets.count("42"), 1U) << line;
    EXPECT_EQ(WithoutWords("42 is asked, 142 is not", secrets), "(left out) is asked, 142 is not");
  }
}

TEST(Secrets, MountOptionsGoButForReadOnly) {
  EXPECT_EQ(WithoutMountOptions("//a/b /mnt cifs ro,username=me,password=s3cret 0 0\n"
                                "/dev/a\t/  ext4 rw,relatime,errors=remount-ro 0 0\n"
                                "broken line\n\nx y z s3cret"),
            "//a/b /mnt cifs ro 0 0\n"
            "/dev/a\t/  ext4 rw 0 0\n"
            "broken line\n\nx y z rw");
  EXPECT_EQ(WithoutMountOptions(""), "");
}

TEST(Secrets, AreFoundInOtherTexts) {
  const Secrets secrets = {"public", "s3cret-word", "a"};
  EXPECT_EQ(WithoutWords("public: not publicly, 's3cret-word' a", secrets),
            "(left out): not publicly, '(left out)' (left out)");
  EXPECT_EQ(WithoutWords("", secrets), "");
}

}  // namespace
}  // namespace vex
