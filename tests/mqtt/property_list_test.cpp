#include "messages/property_list.h"

#include <gtest/gtest.h>
#include <string>

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

TEST(UserProperties, OfAFloodAreOnlyTheFirst)
{
    mosquitto_property *list = nullptr;
    for (int number = 0; number < 1000; ++number)
        ASSERT_EQ(mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, "name",
                                                     std::to_string(number).c_str()),
                  MOSQ_ERR_SUCCESS);

    const UserProperties properties = user_properties(list);

    ASSERT_EQ(properties.size(), 100u);
    EXPECT_EQ(properties.back().second, "99");
    mosquitto_property_free_all(&list);
}
