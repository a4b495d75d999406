// Requests of the master and what becomes of them, with the agent thread's half of a set in the
// test's hands.
#include "framework/snmp/snmp_requests.h"

#include <gtest/gtest.h>

#include <new>

#include "framework/snmp/frames.h"
#include "tests/unit/framework/session/with_session.h"
#include "tests/unit/framework/small_mib.h"

namespace vex {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

enum {
  kGenErr = 5,
  kWrongTypeOfSet = 7,
  kResourceUnavailable = 13,
  kCommitFailed = 14,
  kUndoFailed = 15,
  kNotWritable = 17,
  kProcessingError = 268
};

struct HandSet : SetTransaction {
  std::vector<std::vector<SetItem>> parts;
  SetPort::CheckResult check;
  SetPort::ApplyResult apply;
  int applies = 0;
  bool released = false;
};

class HandPort final : public SetPort {
 public:
  std::shared_ptr<SetTransaction> Begin(Clock::time_point) override {
    if (fails) {
      throw std::bad_alloc();
    }
    sets.push_back(std::make_shared<HandSet>());
    return sets.back();
  }
  int AddPart(SetTransaction &transaction, std::vector<SetItem> items) override {
    Of(transaction).parts.push_back(std::move(items));
    return static_cast<int>(Of(transaction).parts.size()) - 1;
  }
  CheckResult CheckOf(SetTransaction &transaction, int) override {
    return Of(transaction).check;
  }
  void RequestApply(SetTransaction &transaction) override {
    Of(transaction).applies++;
  }
  ApplyResult ApplyOf(SetTransaction &transaction, int) override {
    return Of(transaction).apply;
  }
  void Release(SetTransaction &transaction) override {
    Of(transaction).released = true;
  }
  static HandSet &Of(SetTransaction &transaction) {
    return static_cast<HandSet &>(transaction);
  }

  std::vector<std::shared_ptr<HandSet>> sets;
  bool fails = false;
};

class SnmpRequestsTest : public WithSession {
 protected:
  void SetUp() override {
    WithSession::SetUp();
    index_.Put(ImageMaker(1, 0).Int(kCount, 7).Text(kText, "hello", 9).Int(kLast, 9).Make());
    index_.Put(Row(2, 1));
    index_.Put(Row(3, 2));
  }
  static std::shared_ptr<Image> Row(uint64_t id, uint32_t instance) {
    return ImageMaker(id, instance)
        .Int(kRowNumber, static_cast<int32_t>(instance))
        .Text(kRowName, "row", 16)
        .Octets(kRowDate, "1234567", 8)
        .Make();
  }
  void Requested(netsnmp_pdu *pdu) override {
    requests_.Handle(session_.get(), pdu, true, current_);
  }
  void Unread(const AgentxSession::PacketHeader &header) override {
    requests_.HandleUnread(session_.get(), header);
  }
  void Ended() override {
    requests_.SessionLost();
  }

  // The name of an instance as the master writes it.
  static OidNumbers Name(SmallMib variable, uint32_t instance) {
    OidNumbers name(kSmallMib[variable].Oid().begin(), kSmallMib[variable].Oid().end());
    name.push_back(instance);
    return name;
  }
  static AgentxBinding Text(SmallMib variable, const std::string &text, uint32_t instance = 0) {
    AgentxBinding binding;
    binding.type = AgentxBinding::kOctets;
    binding.name = Name(variable, instance);
    binding.octets = text;
    return binding;
  }
  static AgentxBinding Number(SmallMib variable, int32_t number) {
    AgentxBinding binding;
    binding.type = AgentxBinding::kInteger;
    binding.name = Name(variable, 0);
    binding.integer = number;
    return binding;
  }
  // The answer to a request; -1 when there is none.
  int ErrorOf(const AgentxPacket &request, int *index = nullptr) {
    Give(request);
    return NextError(request, index);
  }
  int NextError(const AgentxPacket &request, int *index = nullptr) {
    std::optional<AgentxPacket> answer = master_->Receive(10000);
    if (!answer || answer->packet != request.packet) {
      return -1;
    }
    if (index != nullptr) {
      *index = answer->ErrorIndex();
    }
    return answer->Error();
  }
  std::vector<AgentxBinding> BindingsOf(const AgentxPacket &request) {
    Give(request);
    std::optional<AgentxPacket> answer = master_->Receive(10000);
    if (!answer || answer->Error() != 0) {
      ADD_FAILURE() << "no answer";
      return {};
    }
    return answer->Bindings();
  }
  HandSet &LastSet() {
    return *port_.sets.back();
  }
  // Of a set that was tested and accepted; not answered yet.
  AgentxPacket GiveCommit(uint32_t transaction) {
    const AgentxPacket test = master_->TestSet(transaction, {Number(kCount, 1)});
    Give(test);
    LastSet().check.state = SetPort::Check::kAccepted;
    requests_.Work(session_.get());
    EXPECT_EQ(NextError(test), 0);
    AgentxPacket commit = master_->Phase(kAgentxCommitSet, transaction);
    Give(commit);
    return commit;
  }

  MibIndex index_{kSmallMib};
  HandPort port_;
  SnmpRequests requests_{&index_, &port_};
  bool current_ = true;
};

// ---- Reads ----

TEST_F(SnmpRequestsTest, ARangeEndsBeforeItsEndWhereverThatIs) {
  BringUp();
  const OidNumbers from = {1, 3, 9, 3};
  const struct {
    OidNumbers end;
    bool found;
  } cases[] = {{{}, true},
               {{0, 0}, true},
               {{0, 5}, false},
               {{1, 3}, false},
               {{1, 4}, true},
               {{1, 3, 9, 3, 1, 0}, false},
               {{1, 3, 9, 3, 1, 1}, true}};
  for (const auto &c : cases) {
    const std::vector<AgentxBinding> got = BindingsOf(master_->GetNext({from}, c.end));
    ASSERT_EQ(got.size(), 1U);
    EXPECT_EQ(got[0].type == AgentxBinding::kInteger, c.found) << c.end.size();
    EXPECT_EQ(got[0].name, c.found ? Name(kLast, 0) : from);
  }
}

// net-snmp gives a range without end two zeros; a range that has nothing there is not bounded
// either.
TEST_F(SnmpRequestsTest, ARangeWithNothingForItsEndIsUnbounded) {
  BringUp();
  netsnmp_pdu *request = snmp_pdu_create(kAgentxGetNext);
  const oid from[] = {1, 3, 9, 3};
  snmp_add_null_var(request, from, OID_LENGTH(from));
  requests_.Handle(session_.get(), request, true, true);
  snmp_free_pdu(request);
  std::optional<AgentxPacket> answer = master_->Receive(10000);
  ASSERT_TRUE(answer);
  ASSERT_EQ(answer->Bindings().size(), 1U);
  EXPECT_EQ(answer->Bindings()[0].integer, 9);
}

TEST_F(SnmpRequestsTest, ARangeThatHasEndedStaysSoWhileOthersGoOn) {
  BringUp();
  const std::vector<AgentxBinding> got =
      BindingsOf(master_->GetBulk(0, 3, {{1, 3, 9, 3}, {1, 3, 9, 1}, {1, 3, 9, 2, 1, 1}}));
  ASSERT_EQ(got.size(), 9U);
  EXPECT_EQ(got[0].name, Name(kLast, 0));
  EXPECT_EQ(got[1].name, Name(kCount, 0));
  EXPECT_EQ(got[2].name, Name(kRowNumber, 1));
  EXPECT_EQ(got[3].type, AgentxBinding::kEndOfMibView);
  EXPECT_EQ(got[4].name, Name(kText, 0));
  EXPECT_EQ(got[6].type, AgentxBinding::kEndOfMibView);
  EXPECT_EQ(got[7].name, Name(kRowNumber, 1));
}

// Whichever variable of an answer there is no memory for.
TEST_F(SnmpRequestsTest, AnAnswerIsWholeOrAnError) {
  BringUp();
  const AgentxPacket requests[] = {
      master_->Get({Name(kCount, 0), Name(kCount, 5), {1, 3, 9, 99, 0}, Name(kText, 0)}),
      master_->GetNext({{1, 3, 9, 1}, {1, 3, 9, 2}, {1, 3, 9, 99}, {1, 3, 9, 3}}),
      master_->GetBulk(2, 1, {{1, 3, 9, 1}, {1, 3, 9, 99}, {1, 3, 9, 2}, {1, 3, 9, 3}})};
  for (const AgentxPacket &request : requests) {
    for (int nth = 1; nth <= 4; nth++) {
      // The library adds what it reads by another one of its functions.
      const FailingLibrary fails("snmp_varlist_add_variable", ENOMEM, nth);
      EXPECT_EQ(ErrorOf(request), kGenErr) << int{request.type} << ' ' << nth;
      EXPECT_EQ(fails.Failed(), 1);
    }
    EXPECT_EQ(ErrorOf(request), 0);
  }
}

TEST_F(SnmpRequestsTest, WhatIsNoRequestIsAnError) {
  BringUp();
  netsnmp_pdu *request = snmp_pdu_create(kAgentxPing);
  request->reqid = 77;
  requests_.Handle(session_.get(), request, true, true);
  snmp_free_pdu(request);
  std::optional<AgentxPacket> answer = master_->Receive(10000);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->packet, 77U);
  EXPECT_EQ(answer->Error(), kProcessingError);
}

// ---- Answers that there is no memory for ----

TEST_F(SnmpRequestsTest, AnAnswerWithoutMemoryComesLater) {
  BringUp();
  const AgentxPacket request = master_->Get({Name(kCount, 0)});
  {
    const FailingLibrary fails("snmp_pdu_create", ENOMEM, 1, FailingLibrary::kAll);
    Give(request);
    EXPECT_TRUE(NothingComes());
    requests_.Work(session_.get());
  }
  EXPECT_TRUE(NothingComes());
  const Clock::time_point due = requests_.NextDue();
  EXPECT_LE(due, Clock::now() + milliseconds(10));
  requests_.Work(session_.get());
  EXPECT_EQ(NextError(request), kGenErr);
  EXPECT_EQ(requests_.NextDue(), Clock::time_point::max());
}

// More are owed than there is room for: another session is begun, in which nothing is.
TEST_F(SnmpRequestsTest, TooManyAnswersWithoutMemoryEndTheSession) {
  BringUp();
  const FailingLibrary fails("snmp_pdu_create", ENOMEM, 1, FailingLibrary::kAll);
  for (int i = 0; i < 32; i++) {
    Give(master_->Get({Name(kCount, 0)}));
    ASSERT_FALSE(session_->Down()) << i;
  }
  Give(master_->Get({Name(kCount, 0)}));
  EXPECT_TRUE(session_->Down());
  EXPECT_TRUE(master_->HungUp(10000));
  EXPECT_EQ(requests_.NextDue(), Clock::time_point::max());
}

// Nobody is left to be told.
TEST_F(SnmpRequestsTest, AnAnswerToAMasterThatIsGoneIsNotKept) {
  BringUp();
  const AgentxPacket get = master_->Get({Name(kCount, 0)});
  const AgentxPacket commit = master_->Phase(kAgentxCommitSet, 5);
  for (const AgentxPacket &request : {get, commit}) {
    master_->Send(request);
    master_->Disconnect();
    Read();
    EXPECT_TRUE(session_->Down());
    EXPECT_EQ(requests_.NextDue(), Clock::time_point::max());
    Events();
    BringUp();
  }
}

// ---- Sets ----

TEST_F(SnmpRequestsTest, OctetsAndAnEmptyTextMayBeSet) {
  BringUp();
  for (const AgentxBinding &binding : {Text(kRowDate,
                                            std::string("12\0"
                                                        "45678",
                                                        8),
                                            1),
                                       Text(kRowDate, "", 1), Text(kText, "")}) {
    static uint32_t transaction = 5;
    port_.sets.clear();
    Give(master_->TestSet(transaction, {binding}));
    ASSERT_EQ(port_.sets.size(), 1U);
    ASSERT_EQ(LastSet().parts.size(), 1U);
    const SetItem &item = LastSet().parts[0][0];
    EXPECT_EQ(item.length, static_cast<int>(binding.octets.size()));
    EXPECT_EQ(std::string(item.value.begin(), item.value.end()),
              binding.octets + std::string(1, '\0'));
    Give(master_->Phase(kAgentxCleanupSet, transaction++));
    EXPECT_TRUE(LastSet().released);
  }
}

TEST_F(SnmpRequestsTest, TheFirstWrongVariableIsTheOneThatIsTold) {
  BringUp();
  int index = 0;
  EXPECT_EQ(
      ErrorOf(master_->TestSet(5, {Number(kCount, 1), Number(kLast, 1), Number(kText, 1)}), &index),
      kNotWritable);
  EXPECT_EQ(index, 2);
}

// The master's parts of a set that one part has failed.
TEST_F(SnmpRequestsTest, PartsBehindAFailedOneAreNotBegun) {
  BringUp();
  EXPECT_EQ(ErrorOf(master_->TestSet(5, {Number(kLast, 1)})), kNotWritable);
  int index = -1;
  EXPECT_EQ(ErrorOf(master_->TestSet(5, {Number(kCount, 1)}), &index), 0);
  EXPECT_EQ(index, 0);
  EXPECT_TRUE(LastSet().parts.empty());
  EXPECT_TRUE(LastSet().released);
  // Nor is any of it committed: the failed part, the one behind it, or one that never was.
  for (int part = 0; part < 3; part++) {
    EXPECT_EQ(ErrorOf(master_->Phase(kAgentxCommitSet, 5)), kCommitFailed);
  }
  EXPECT_EQ(LastSet().applies, 0);
}

TEST_F(SnmpRequestsTest, ACommitOfMorePartsThanWereTestedFails) {
  BringUp();
  const AgentxPacket commit = GiveCommit(5);
  EXPECT_EQ(LastSet().applies, 1);
  EXPECT_EQ(ErrorOf(master_->Phase(kAgentxCommitSet, 5)), kCommitFailed);
  EXPECT_EQ(LastSet().applies, 1);
  // A commit that is asked again while it is on its way has one answer.
  Give(commit);
  EXPECT_EQ(LastSet().applies, 1);
  EXPECT_TRUE(NothingComes());
  LastSet().apply.state = SetPort::Apply::kApplied;
  requests_.Work(session_.get());
  EXPECT_EQ(NextError(commit), 0);
  EXPECT_TRUE(NothingComes());
}

TEST_F(SnmpRequestsTest, ASetOfNothingIsNone) {
  BringUp();
  EXPECT_EQ(ErrorOf(master_->TestSet(5, {})), kProcessingError);
  EXPECT_TRUE(port_.sets.empty());
  EXPECT_EQ(ErrorOf(master_->Phase(kAgentxCommitSet, 5)), kCommitFailed);
  EXPECT_EQ(ErrorOf(master_->TestSet(5, {Number(kText, 1)})), kWrongTypeOfSet);
}

// Whatever a master wants: all that is applied has been tested before.
TEST_F(SnmpRequestsTest, NothingIsAddedToASetThatIsCommitted) {
  BringUp();
  const AgentxPacket commit = GiveCommit(5);
  EXPECT_EQ(ErrorOf(master_->TestSet(5, {Number(kCount, 2)})), kResourceUnavailable);
  EXPECT_EQ(LastSet().parts.size(), 1U);
  LastSet().apply.state = SetPort::Apply::kApplied;
  requests_.Work(session_.get());
  EXPECT_EQ(NextError(commit), 0);
  EXPECT_EQ(ErrorOf(master_->TestSet(5, {Number(kCount, 2)})), kResourceUnavailable);
  EXPECT_EQ(LastSet().parts.size(), 1U);
}

// What an undo says: that it failed where something was applied and nothing else tells of it.
TEST_F(SnmpRequestsTest, AnUndoTellsWhatItCannotTakeBack) {
  BringUp();
  uint32_t transaction = 5;
  const struct {
    SetPort::Apply apply;
    bool second;  // a commit more than there are parts, which fails
    int undone;
  } cases[] = {{SetPort::Apply::kPending, false, 0}, {SetPort::Apply::kApplied, false, kUndoFailed},
               {SetPort::Apply::kFailed, false, 0},  {SetPort::Apply::kApplied, true, 0},
               {SetPort::Apply::kFailed, true, 0},   {SetPort::Apply::kPending, true, 0}};
  for (const auto &c : cases) {
    const AgentxPacket test = master_->TestSet(transaction, {Number(kCount, 1)});
    Give(test);
    LastSet().check.state = SetPort::Check::kAccepted;
    LastSet().apply.state = c.apply;
    requests_.Work(session_.get());
    EXPECT_EQ(NextError(test), 0);
    const AgentxPacket commit = master_->Phase(kAgentxCommitSet, transaction);
    Give(commit);
    if (c.apply != SetPort::Apply::kPending) {
      EXPECT_EQ(NextError(commit), c.apply == SetPort::Apply::kApplied ? 0 : kCommitFailed);
    }
    if (c.second) {
      EXPECT_EQ(ErrorOf(master_->Phase(kAgentxCommitSet, transaction)), kCommitFailed);
    }
    int index = -1;
    EXPECT_EQ(ErrorOf(master_->Phase(kAgentxUndoSet, transaction), &index), c.undone);
    EXPECT_EQ(index, c.undone != 0 ? 1 : 0);
    EXPECT_TRUE(LastSet().released);
    Give(master_->Phase(kAgentxCleanupSet, transaction++));
  }
}

// Sets that the master never ended are remembered, to a bound; those that are over make room.
TEST_F(SnmpRequestsTest, TooManySetsAtOnceAreRefused) {
  BringUp();
  uint32_t transaction = 100;
  for (size_t i = 0; i < kMostSets; i++) {
    Give(master_->TestSet(transaction++, {Number(kCount, 1)}));
  }
  EXPECT_EQ(port_.sets.size(), kMostSets);
  EXPECT_EQ(ErrorOf(master_->TestSet(transaction++, {Number(kCount, 1)})), kResourceUnavailable);
  EXPECT_EQ(ErrorOf(master_->TestSet(transaction++, {Number(kText, 1)})), kWrongTypeOfSet);
  EXPECT_EQ(port_.sets.size(), kMostSets);
  // What belongs to one of them has its place.
  Give(master_->TestSet(100, {Number(kCount, 2)}));
  EXPECT_EQ(port_.sets.front()->parts.size(), 2U);
  // One is taken back: there is room for one.
  EXPECT_EQ(ErrorOf(master_->Phase(kAgentxUndoSet, 100)), 0);
  Give(master_->TestSet(transaction++, {Number(kCount, 1)}));
  EXPECT_EQ(port_.sets.size(), kMostSets + 1);
  EXPECT_EQ(ErrorOf(master_->TestSet(transaction++, {Number(kCount, 1)})), kResourceUnavailable);
  // All are past their time, but what became of them is still to be heard.
  AdvanceClock(seconds(1));
  EXPECT_EQ(ErrorOf(master_->TestSet(transaction++, {Number(kCount, 1)})), kResourceUnavailable);
  EXPECT_EQ(port_.sets.size(), kMostSets + 1);
  EXPECT_TRUE(NothingComes());
  // The master hears it before they are forgotten.
  for (const auto &set : port_.sets) {
    set->check.state = SetPort::Check::kUndecided;
  }
  Give(master_->TestSet(transaction, {Number(kCount, 1)}));
  EXPECT_EQ(port_.sets.size(), kMostSets + 2);
  for (size_t i = 0; i < kMostSets; i++) {
    const std::optional<AgentxPacket> answer = master_->Receive();
    ASSERT_TRUE(answer) << i;
    EXPECT_EQ(answer->Error(), kResourceUnavailable);
    EXPECT_NE(answer->transaction, transaction);
  }
  EXPECT_TRUE(NothingComes());
  for (size_t i = 0; i < port_.sets.size(); i++) {
    EXPECT_EQ(port_.sets[i]->released, i <= kMostSets) << i;
  }
}

TEST_F(SnmpRequestsTest, ASetThatNobodyEndsIsForgotten) {
  BringUp();
  const AgentxPacket test = master_->TestSet(5, {Number(kCount, 1)});
  Give(test);
  LastSet().check.state = SetPort::Check::kUndecided;
  requests_.Work(session_.get());
  int index = -1;
  EXPECT_EQ(NextError(test, &index), kResourceUnavailable);
  EXPECT_EQ(index, 1);
  AdvanceClock(seconds(29));
  requests_.Work(session_.get());
  EXPECT_NE(requests_.NextDue(), Clock::time_point::max());
  AdvanceClock(seconds(3));
  EXPECT_LE(requests_.NextDue(), Clock::now());
  requests_.Work(session_.get());
  EXPECT_EQ(requests_.NextDue(), Clock::time_point::max());
}

// Without memory for the set itself the manager is told, and its later phases change nothing.
TEST_F(SnmpRequestsTest, ASetThatCouldNotBeginHasNothingToTakeBack) {
  BringUp();
  port_.fails = true;
  EXPECT_EQ(ErrorOf(master_->TestSet(5, {Number(kCount, 1)})), kResourceUnavailable);
  EXPECT_EQ(ErrorOf(master_->Phase(kAgentxCommitSet, 5)), kCommitFailed);
  EXPECT_EQ(ErrorOf(master_->Phase(kAgentxUndoSet, 5)), 0);
  Give(master_->Phase(kAgentxCleanupSet, 5));
  EXPECT_EQ(ErrorOf(master_->TestSet(6, {Number(kCount, 1)})), kResourceUnavailable);
  requests_.Work(session_.get());
  requests_.SessionLost();
  EXPECT_EQ(requests_.NextDue(), Clock::time_point::max());
  EXPECT_TRUE(port_.sets.empty());
}

// A part that cannot be read fails the set: it is answered once, the others have nothing against
// it, and the agent is told that it is over.
TEST_F(SnmpRequestsTest, APartThatCannotBeReadFailsTheSet) {
  BringUp();
  const AgentxPacket first = master_->TestSet(5, {Number(kCount, 1)});
  const AgentxPacket second = master_->TestSet(5, {Text(kText, "x")});
  Give(first);
  Give(second);
  AgentxPacket again = second;  // repeated, and torn
  again.payload.resize(6);
  EXPECT_EQ(ErrorOf(again), kResourceUnavailable);
  EXPECT_EQ(NextError(first), 0);
  EXPECT_TRUE(NothingComes());
  EXPECT_TRUE(LastSet().released);
  EXPECT_EQ(ErrorOf(master_->Phase(kAgentxCommitSet, 5)), kCommitFailed);
  // One whose answer is out stays answered.
  again = first;
  again.payload.resize(6);
  EXPECT_EQ(ErrorOf(again), kResourceUnavailable);
  EXPECT_TRUE(NothingComes());
}

// Phases have no variables: what of them cannot be read is told by the session.
TEST_F(SnmpRequestsTest, APhaseThatCouldNotBeReadIsRefusedByItsKind) {
  BringUp();
  const struct {
    int type;
    int error;
  } cases[] = {{kAgentxGet, kGenErr},
               {kAgentxTestSet, kResourceUnavailable},
               {kAgentxCommitSet, kCommitFailed},
               {kAgentxUndoSet, kUndoFailed}};
  uint32_t packet = 5000;
  for (const auto &c : cases) {
    requests_.HandleUnread(session_.get(), {c.type, 0, master_->Session(), 5, ++packet});
    std::optional<AgentxPacket> answer = master_->Receive(10000);
    ASSERT_TRUE(answer) << c.type;
    EXPECT_EQ(answer->packet, packet);
    EXPECT_EQ(answer->Error(), c.error) << c.type;
  }
  requests_.HandleUnread(session_.get(), {kAgentxCleanupSet, 0, master_->Session(), 5, ++packet});
  EXPECT_TRUE(NothingComes());
  // In the byte order of the request.
  requests_.HandleUnread(session_.get(),
                         {kAgentxGet, kNetworkByteOrder, master_->Session(), 5, ++packet});
  const std::string answer = master_->ReceiveBytes(10000);
  ASSERT_EQ(answer.size(), 28U);
  EXPECT_EQ(answer[2], kNetworkByteOrder);
  EXPECT_EQ(answer.substr(24), std::string("\0\5\0\1", 4));  // the error and its index
}

// While the index lacks something nothing is looked up in it; a set goes on, and its end has no
// context.
TEST_F(SnmpRequestsTest, LaterPhasesNeedNoIndex) {
  BringUp();
  const AgentxPacket test = master_->TestSet(5, {Number(kCount, 1)});
  Give(test);
  LastSet().check.state = SetPort::Check::kAccepted;
  LastSet().apply.state = SetPort::Apply::kApplied;
  requests_.Work(session_.get());
  EXPECT_EQ(NextError(test), 0);
  current_ = false;
  EXPECT_EQ(ErrorOf(master_->Get({Name(kCount, 0)})), kGenErr);
  EXPECT_EQ(ErrorOf(master_->Phase(kAgentxCommitSet, 5)), 0);
  AgentxPacket end = master_->Phase(kAgentxCleanupSet, 5);
  end.flags = kNonDefaultContext;
  end.payload = std::string("\3\0\0\0ctx\0", 8);
  Give(end);
  EXPECT_TRUE(NothingComes());
  EXPECT_TRUE(LastSet().released);
}

}  // namespace
}  // namespace vex
