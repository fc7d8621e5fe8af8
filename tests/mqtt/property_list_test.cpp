#include "broker/property_list.h"

#include <gtest/gtest.h>

using namespace kp::mqtt;

TEST(Answer, HasTheReasonStringOfTheBrokerMadePrintable)
{
    mosquitto_property *list = nullptr;
    ASSERT_EQ(mosquitto_property_add_string(&list, MQTT_PROP_REASON_STRING, "no room in tenant 7"),
              MOSQ_ERR_SUCCESS);

    const Answer answer = answer_of(kQuotaExceeded, list);

    EXPECT_EQ(answer.text, "Quota exceeded (it says: no room in tenant 7)");
    EXPECT_TRUE(answer.is_refusal());
    mosquitto_property_free_all(&list);
}
