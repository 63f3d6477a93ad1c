// The transport's observer registry: who a received message goes to.
#include <gtest/gtest.h>

#include "lapi/com/observer_registry.h"
#include "support/fake_transport.h"

namespace tokard::test {
namespace {

using ecu::lapi::com::Message;
using ecu::lapi::com::ObserverRegistry;
using Observers = std::vector<ObserverRegistry::ObserverPtr>;

class Counter : public ecu::lapi::com::ISubscriptionObserver {
 public:
  void message(const std::string& /*topic*/, const Message& /*msg*/) override { ++count; }
  int count = 0;
};

struct Match {
  std::string filter, topic;
  bool delivered;
};

class ARegistryFilter : public testing::TestWithParam<Match> {};

TEST_P(ARegistryFilter, ReachesTheTopicsTheBrokerWouldSendIt) {
  ObserverRegistry registry;
  const auto observer = std::make_shared<Counter>();
  ASSERT_EQ(registry.add(GetParam().filter, 1, observer), 1);
  Observers found;
  registry.observers_of(GetParam().topic, found);
  EXPECT_EQ(found.size(), GetParam().delivered ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Filters, ARegistryFilter,
    testing::Values(Match{"rt/E1", "rt/E1", true}, Match{"rt/E1", "rt/E2", false},
                    Match{"rt/E1", "rt/E1/x", false}, Match{"rt/+", "rt/E1", true},
                    Match{"rt/+", "rt/", true}, Match{"rt/+", "rt/E1/x", false},
                    Match{"rt/+", "rttx/E1", false}, Match{"+/+/x", "a/b/x", true},
                    Match{"app/#", "app", true}, Match{"app/#", "app/B/pgn/response", true},
                    Match{"#", "system/tokard/status/E1", true}, Match{"#", "$SYS/uptime", false},
                    Match{"+/uptime", "$SYS/uptime", false}, Match{"$SYS/#", "$SYS/uptime", true}));

class ARegistry : public testing::Test {
 protected:
  Observers of(const std::string& topic) {
    registry.observers_of(topic, found);
    return found;
  }
  ObserverRegistry registry;
  Observers found;  // reused, as the delivery thread reuses its list
  const ObserverRegistry::ObserverPtr a = std::make_shared<Counter>(),
                                      b = std::make_shared<Counter>();
};

TEST_F(ARegistry, GivesEachObserverOfATopicTheMessageOnceInTheOrderTheySubscribed) {
  EXPECT_EQ(registry.add("t/x", 1, a), 1);
  EXPECT_EQ(registry.add("t/x", 0, b), ObserverRegistry::kNothingToSend) << "QoS 1 asked already";
  EXPECT_EQ(registry.add("t/+", 2, a), 2);
  EXPECT_EQ(registry.add("t/+", 0, a), ObserverRegistry::kNothingToSend) << "a pair once";
  EXPECT_EQ(registry.add("t/x", 2, b), 2) << "a higher QoS is asked for again";
  EXPECT_EQ(of("t/x"), (Observers{a, b}));
  EXPECT_EQ(of("t/y"), Observers{a});
  EXPECT_EQ(of("u/y"), Observers{}) << "the list of the last delivery is gone";
  EXPECT_EQ(registry.size(), 2u);
}

TEST_F(ARegistry, KeepsTheOtherObserverOfATopicWhicheverIsRemoved) {
  for (const auto& [gone, kept] : {std::pair{a, b}, std::pair{b, a}}) {
    ASSERT_EQ(registry.add("t/+", 1, a), 1);
    ASSERT_EQ(registry.add("t/+", 1, b), ObserverRegistry::kNothingToSend);
    ASSERT_EQ(registry.add("t/+", 1, b), ObserverRegistry::kNothingToSend);
    const auto first = registry.remove("t/+", gone);
    EXPECT_EQ(first.observer, gone);
    EXPECT_FALSE(first.last);
    EXPECT_EQ(of("t/x"), Observers{kept});
    EXPECT_EQ(registry.remove("t/+", gone).observer, nullptr) << "removed already";
    EXPECT_TRUE(registry.remove("t/+", kept).last);
    EXPECT_EQ(of("t/x"), Observers{});
  }
  EXPECT_EQ(registry.remove("t/never", a).observer, nullptr);
}

TEST(AFakeTransport, DeliversWildcardMatchesAndRefusesAnUnknownUnsubscribe) {
  FakeTransportClient fake;
  const auto counter = std::make_shared<Counter>();
  ASSERT_TRUE(fake.subscribe("t/+", 1, counter));
  EXPECT_FALSE(fake.subscribe("t/#/x", 1, counter));
  fake.deliver("t/a", Message{});
  fake.deliver("u/a", Message{});
  EXPECT_EQ(counter->count, 1);
  EXPECT_FALSE(fake.unsubscribe("t/a", counter));
  EXPECT_TRUE(fake.unsubscribe("t/+", counter));
  EXPECT_EQ(fake.subscription_count(), 0u);
}

}  // namespace
}  // namespace tokard::test
