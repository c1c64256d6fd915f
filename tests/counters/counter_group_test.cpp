#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "counters/counter_group/counter_enums.h"
#include "counters/counter_group/counter_group.h"
#include "counters/counter_group/counters_schema.h"
#include "fixtures/json_value.h"
#include "fixtures/log_capture.h"
#include "utils/logger.h"

using obx_test::LogCapture;

namespace {

obx_counter_info_t make_counter(const char* name, const char* description, const char* units)
{
    obx_counter_info_t counter{};
    counter.id = 17;
    counter.name = name ? strdup(name) : nullptr;
    counter.description = description ? strdup(description) : nullptr;
    counter.units = units ? strdup(units) : nullptr;
    counter.data_type = OBX_COUNTER_DATA_TYPE_STRING;
    counter.counting_type = OBX_COUNTER_COUNTING_TYPE_RUNNING_SUM;
    counter.offset = 24;
    counter.length = 12;
    counter.reserved = 5;
    counter.hidden = 1;
    counter.mandatory = 1;
    return counter;
}

obx_counter_group_t* new_group()
{
    return static_cast<obx_counter_group_t*>(calloc(1, sizeof(obx_counter_group_t)));
}

bool warned_null_free(const LogCapture& log, const char* function)
{
    for (const std::string& line : log.at(OBX_LOG_WARNING))
        if (line.rfind("on ", 0) == 0 && line.find(std::string(", ") + function + " ") != std::string::npos &&
            line.find(" attempted to free NULL ptr") == line.size() - strlen(" attempted to free NULL ptr"))
            return true;
    return false;
}

// A provider that records what reaches it.
struct FakeProvider {
    static FakeProvider* current;
    obx_counters_provider_t api{};
    int created = 0;
    int destroyed = 0;
    bool accept = true;
    bool raise = true;
    std::vector<uintptr_t> hook_args;
    int hook_called = 0;

    FakeProvider()
    {
        current = this;
        api.name = "fake";
        api.create_group = [](const obx_counter_group_info_t*) {
            current->created++;
            return new_group();
        };
        api.destroy_group = [](obx_counter_group_t* group) {
            current->destroyed++;
            obx_counter_group_destroy(group);
        };
        api.add_counter = [](obx_counter_group_t* group, const obx_counter_info_t*) {
            if (!current->accept) return false;
            if (current->raise) group->num_counters++;
            return true;
        };
        api.hook1 = [](obx_counter_group_t*, uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e) {
            current->hook_called = 1;
            current->hook_args = {a, b, c, d, e};
            return static_cast<intptr_t>(11);
        };
        api.hook2 = [](obx_counter_group_t*, uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e) {
            current->hook_called = 2;
            current->hook_args = {a, b, c, d, e};
            return static_cast<intptr_t>(22);
        };
        api.provider_data = 0xfeedu;
    }
};
FakeProvider* FakeProvider::current = nullptr;

}  // namespace

TEST(CounterInfo, DeepCopyTakesAllButHidden)
{
    obx_counter_info_t source = make_counter("n", "d", "u");
    obx_counter_info_t* copy = obx_counter_info_copy(&source);
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy->name, "n");
    EXPECT_STREQ(copy->description, "d");
    EXPECT_STREQ(copy->units, "u");
    EXPECT_NE(copy->name, source.name);
    EXPECT_NE(copy->units, source.units);
    EXPECT_EQ(copy->id, 17u);
    EXPECT_EQ(copy->data_type, OBX_COUNTER_DATA_TYPE_STRING);
    EXPECT_EQ(copy->counting_type, OBX_COUNTER_COUNTING_TYPE_RUNNING_SUM);
    EXPECT_EQ(copy->offset, 24u);
    EXPECT_EQ(copy->length, 12u);
    EXPECT_EQ(copy->reserved, 5u);
    EXPECT_EQ(copy->mandatory, 1);
    EXPECT_EQ(copy->hidden, 0);  // copies are never hidden
    obx_counter_info_destroy(copy);
    free(copy);
    obx_counter_info_destroy(&source);
    EXPECT_EQ(obx_counter_info_copy(nullptr), nullptr);
}

TEST(CounterInfo, DestroyWarnsOncePerMissingText)
{
    const struct {
        const char* name;
        const char* description;
        const char* units;
        size_t warnings;
    } cases[] = {{"n", "d", "u", 0}, {"n", nullptr, "u", 1}, {nullptr, nullptr, nullptr, 3}};
    for (const auto& c : cases) {
        obx_counter_info_t counter = make_counter(c.name, c.description, c.units);
        LogCapture log;
        obx_counter_info_destroy(&counter);
        EXPECT_EQ(counter.name, nullptr);
        EXPECT_EQ(counter.description, nullptr);
        EXPECT_EQ(counter.units, nullptr);
        EXPECT_EQ(log.at(OBX_LOG_WARNING).size(), c.warnings) << log.all();
        if (c.warnings) {
            EXPECT_TRUE(warned_null_free(log, "obx_destroy_counter_info")) << log.all();
        }
        // A second destroy finds every text gone.
        obx_counter_info_destroy(&counter);
        EXPECT_EQ(log.at(OBX_LOG_WARNING).size(), c.warnings + 3);
    }
    obx_counter_info_destroy(nullptr);
}

TEST(CounterGroup, AddCounterWithoutProviderStoresCopies)
{
    obx_counter_group_t* group = new_group();
    obx_counter_info_t first = make_counter("a", "", "");
    obx_counter_info_t second = make_counter("b", "", "");
    ASSERT_TRUE(obx_counter_group_add_counter(group, &first));
    ASSERT_TRUE(obx_counter_group_add_counter(group, &second));
    ASSERT_EQ(group->num_counters, 2u);
    EXPECT_STREQ(group->counters[0]->name, "a");
    EXPECT_STREQ(group->counters[1]->name, "b");
    EXPECT_NE(group->counters[0]->name, first.name);
    EXPECT_EQ(group->counters[1]->hidden, 0);
    EXPECT_FALSE(obx_counter_group_add_counter(group, nullptr));
    EXPECT_FALSE(obx_counter_group_add_counter(nullptr, &first));
    EXPECT_EQ(group->num_counters, 2u);
    obx_counter_info_destroy(&first);
    obx_counter_info_destroy(&second);
    LogCapture log;
    obx_counter_group_destroy(group);
    EXPECT_TRUE(log.at(OBX_LOG_WARNING).empty()) << log.all();
}

TEST(CounterGroup, DestroyWarnsForEmptySlots)
{
    obx_counter_group_t* group = new_group();
    group->num_counters = 2;
    group->counters = static_cast<obx_counter_info_t**>(calloc(2, sizeof(obx_counter_info_t*)));
    obx_counter_info_t counter = make_counter("a", "b", "c");
    group->counters[1] = obx_counter_info_copy(&counter);
    obx_counter_info_destroy(&counter);
    LogCapture log;
    obx_counter_group_destroy(group);
    EXPECT_EQ(log.at(OBX_LOG_WARNING).size(), 1u) << log.all();
    EXPECT_TRUE(warned_null_free(log, "obx_free_counter_group")) << log.all();
    obx_counter_group_destroy(nullptr);
}

TEST(CounterGroup, ProviderMakesAndOwnsItsGroups)
{
    FakeProvider provider;
    const obx_counter_group_info_t info{42, "cpu_stats"};
    obx_counter_group_t* group = obx_counter_group_from_provider(&provider.api, &info);
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(provider.created, 1);
    EXPECT_EQ(group->provider, &provider.api);
    EXPECT_EQ(group->group_info, &info);
    EXPECT_EQ(group->id, 42u);
    EXPECT_EQ(group->provider_data, 0xfeedu);
    EXPECT_STREQ(group->name, "cpu_stats");
    EXPECT_NE(group->name, info.name);
    EXPECT_STREQ(group->provider_name, "fake");

    obx_counter_info_t counter = make_counter("c", "", "");
    EXPECT_TRUE(obx_counter_group_add_counter(group, &counter));
    EXPECT_EQ(group->num_counters, 1u);  // raised by the hook, not twice

    const struct {
        bool accept, raise;
        const char* error;
    } refusals[] = {
        {false, true, nullptr},
        {true, false, "Provider 'fake' left counter group with 1 counters instead of 2"},
    };
    for (const auto& r : refusals) {
        provider.accept = r.accept;
        provider.raise = r.raise;
        LogCapture log;
        EXPECT_FALSE(obx_counter_group_add_counter(group, &counter));
        EXPECT_EQ(group->num_counters, 1u);
        if (r.error) {
            EXPECT_TRUE(log.has(r.error)) << log.all();
        }
    }
    obx_counter_info_destroy(&counter);

    // The schema hands provider groups back to their provider.
    obx_counters_schema_t* schema = obx_counters_schema_create();
    ASSERT_TRUE(obx_counters_schema_add_group(schema, group));
    obx_counter_group_t* plain = new_group();
    ASSERT_TRUE(obx_counters_schema_add_group(schema, plain));
    EXPECT_EQ(schema->num_groups, 2u);
    EXPECT_FALSE(obx_counters_schema_add_group(schema, nullptr));
    obx_counters_schema_destroy(schema);
    EXPECT_EQ(provider.destroyed, 1);
}

TEST(CounterGroup, ProviderNameStandsInForAMissingGroupName)
{
    FakeProvider provider;
    const obx_counter_group_info_t info{1, nullptr};
    obx_counter_group_t* group = obx_counter_group_from_provider(&provider.api, &info);
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(group->name, nullptr);
    obx_test::JsonPtr value(obx_counter_group_to_json(group));
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(json_string_value(json_object_get(value.get(), "name")), "fake");
    EXPECT_STREQ(json_string_value(json_object_get(value.get(), "provider")), "fake");
    obx_counter_group_destroy(group);

    LogCapture log;
    EXPECT_EQ(obx_counter_group_from_provider(nullptr, &info), nullptr);
    provider.api.create_group = [](const obx_counter_group_info_t*) -> obx_counter_group_t* { return nullptr; };
    EXPECT_EQ(obx_counter_group_from_provider(&provider.api, &info), nullptr);
    EXPECT_EQ(log.at(OBX_LOG_ERROR).size(), 2u) << log.all();
}

TEST(CounterGroup, HooksAreForwarded)
{
    FakeProvider provider;
    obx_counter_group_t* plain = new_group();
    EXPECT_EQ(obx_counter_group_call_hook1(plain, 1, 2, 3, 4, 5), 0);
    EXPECT_EQ(obx_counter_group_call_hook2(plain, 1, 2, 3, 4, 5), 0);
    EXPECT_EQ(obx_counter_group_call_hook1(nullptr, 1, 2, 3, 4, 5), 0);
    EXPECT_EQ(provider.hook_called, 0);

    plain->provider = &provider.api;
    EXPECT_EQ(obx_counter_group_call_hook1(plain, 1, 2, 3, 4, 5), 11);
    EXPECT_EQ(provider.hook_called, 1);
    EXPECT_EQ(provider.hook_args, (std::vector<uintptr_t>{1, 2, 3, 4, 5}));
    EXPECT_EQ(obx_counter_group_call_hook2(plain, 1, 2, 3, 4, 5), 22);
    EXPECT_EQ(provider.hook_called, 2);
    EXPECT_EQ(provider.hook_args, (std::vector<uintptr_t>{0, 2, 3, 4, 5}));

    provider.api.hook2 = nullptr;
    EXPECT_EQ(obx_counter_group_call_hook2(plain, 1, 2, 3, 4, 5), 0);
    plain->provider = nullptr;
    obx_counter_group_destroy(plain);
}
