// Every regular command of the tables on the wire: what the firmware receives
// (operation, info fields, data size, payload bytes), where the reply lands and
// nothing past it, what a failure leaves, what it costs on the bus, and the
// frame's variations. One case per command, generated from the tables.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kavo_command_cases.h"
#include "kavo_test_device.h"
#include "kavo_test_log.h"

using kavo_test::has;
using kavo_test::take;
using kavo_test::wire_case;
using kavo_test::wire_run;

namespace {

constexpr UINT32 MAILBOX = 0x340004;
constexpr UINT32 FIRMWARE_REFUSAL = 0x2F33; // any code the firmware may answer

UINT64 bus_transactions()
{
    const kavo_sim::journal_counters c = kavo_sim::chip_get(0)->counters();
    return c.reads + c.writes + c.burst_reads + c.burst_writes;
}

/* The request as it lies in the chip's mailbox. */
struct mailbox_request {
    UINT32 words[8];
    std::vector<UINT8> payload;
};

mailbox_request read_mailbox()
{
    mailbox_request m;
    kavo_sim::chip* chip = kavo_sim::chip_get(0);
    for (UINT32 i = 0; i < 8; ++i) m.words[i] = chip->ram_peek(MAILBOX + 4 * i);
    m.payload.resize(m.words[7]);
    for (UINT32 i = 0; i < m.words[7]; ++i) {
        const UINT32 word = chip->ram_peek(MAILBOX + 32 + (i & ~3u));
        m.payload[i] = UINT8(word >> (8 * (i & 3)));
    }
    return m;
}

class wire : public kavo_test::device_test, public ::testing::WithParamInterface<const wire_case*> {
  protected:
    void SetUp() override
    {
        device_test::SetUp();
        ASSERT_EQ(bring_up(0), VELT_SUCCESS);
        reply.resize(GetParam()->reply_size);
        for (size_t i = 0; i < reply.size(); ++i) reply[i] = UINT8(0x5A ^ (i * 3));
        run.reply = reply.data();
        run.mode = 0x1111;
        run.value = 0x2222;
        run.value2 = 0x3333;
        run.data_size = UINT32(reply.size());
        take();
    }
    /* The chip answers the next request as scripted; a refusal, as the
       firmware's, carries no payload. */
    void script(VELT_ERROR result)
    {
        kavo_sim::scripted_reply s;
        s.result = result;
        s.mode = run.mode;
        s.value = run.value;
        s.value2 = run.value2;
        if (result == VELT_SUCCESS) s.data = reply;
        kavo_sim::fault_config f = kavo_sim::chip_get(0)->faults();
        f.scripted.assign(1, s);
        kavo_sim::chip_get(0)->faults(f);
    }

    std::vector<UINT8> reply;
    wire_run run;
};

TEST_P(wire, RequestCarriesTheArgumentsAndTheReplyLandsInTheOutputs)
{
    const wire_case& c = *GetParam();
    script(VELT_SUCCESS);
    const UINT64 before = bus_transactions();
    ASSERT_EQ(c.run(run), VELT_SUCCESS);
    EXPECT_EQ(bus_transactions() - before, c.reply_size ? kavo_test::BUS_PER_COMMAND_WITH_PAYLOAD : kavo_test::BUS_PER_COMMAND) << "one request, one reply";

    const mailbox_request m = read_mailbox();
    EXPECT_EQ(m.words[0], 0u) << "device id";
    EXPECT_EQ(m.words[2], c.operation);
    EXPECT_EQ(m.words[3], run.info[0]) << "element_id";
    EXPECT_EQ(m.words[4], run.info[1]) << "mode";
    EXPECT_EQ(m.words[5], run.info[2]) << "parent_id";
    EXPECT_EQ(m.words[6], run.info[3]) << "flag";
    EXPECT_EQ(m.words[7], UINT32(run.payload.size())) << "data_size";
    EXPECT_EQ(m.payload, run.payload) << "payload bytes";
    EXPECT_TRUE(run.outputs_hold_reply) << "outputs hold exactly the reply, nothing written past them";
}

TEST_P(wire, FailureLeavesEveryOutputUntouched)
{
    const wire_case& c = *GetParam();
    script(FIRMWARE_REFUSAL);
    EXPECT_EQ(c.run(run), FIRMWARE_REFUSAL);
    EXPECT_TRUE(run.outputs_untouched);
}

TEST_P(wire, TraceAndStatisticsFollowTheVariation)
{
    const wire_case& c = *GetParam();
    const std::string variation = c.variation;
    kavo_function_logging_set(1);
    kavo_status_logging_set(0);
    script(VELT_SUCCESS);
    ASSERT_EQ(c.run(run), VELT_SUCCESS);
    const std::string traced = take();
    const bool line = has(traced, (std::string("Function=") + c.name + "(0x0").c_str());
    EXPECT_EQ(line, variation == "plain") << traced;
    if (variation == "status") {
        kavo_status_logging_set(1);
        script(VELT_SUCCESS);
        ASSERT_EQ(c.run(run), VELT_SUCCESS);
        EXPECT_TRUE(has(take(), (std::string("Function=") + c.name + "(0x0").c_str()));
    }
    kavo_status_logging_set(0);
    kavo_function_logging_set(0);
}

using wire_checked = wire;
using wire_null_checked = wire;

TEST_P(wire_checked, NullResultPointerHaltsAfterASuccessfulSend)
{
    script(VELT_SUCCESS);
    run.null_outputs = true;
    EXPECT_DEATH(GetParam()->run(run), " ASSERT: ");
}

TEST_P(wire_null_checked, NullPointerIsRefusedAndNothingSent)
{
    const wire_case& c = *GetParam();
    const UINT64 requests = kavo_sim::chip_get(0)->counters().requests;
    run.null_inputs = true;
    EXPECT_EQ(c.run(run), c.null_result);
    EXPECT_EQ(kavo_sim::chip_get(0)->counters().requests, requests) << "nothing sent";
    EXPECT_TRUE(has(take(), " NULL Pointer supplied for "));
}

std::string case_name(const ::testing::TestParamInfo<const wire_case*>& info) { return info.param->name; }

std::vector<const wire_case*> cases(bool (*keep)(const wire_case&))
{
    std::vector<const wire_case*> out;
    for (size_t i = 0; i < kavo_test::NUM_WIRE_CASES; ++i)
        if (keep(kavo_test::WIRE_CASES[i])) out.push_back(&kavo_test::WIRE_CASES[i]);
    return out;
}

INSTANTIATE_TEST_SUITE_P(commands, wire, ::testing::ValuesIn(cases([](const wire_case&) { return true; })),
                         case_name);
INSTANTIATE_TEST_SUITE_P(commands, wire_checked, ::testing::ValuesIn(cases([](const wire_case& c) { return c.checked; })),
                         case_name);
INSTANTIATE_TEST_SUITE_P(commands, wire_null_checked,
                         ::testing::ValuesIn(cases([](const wire_case& c) { return c.null_checked; })), case_name);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(wire_checked);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(wire_null_checked);

}  // namespace
