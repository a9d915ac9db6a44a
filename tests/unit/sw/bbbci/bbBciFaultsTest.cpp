#include "bbBciFixture.h"

#include "bbBciFaults.h"
#include "bbBciHwFaultLabel.h"
#include "recordingFaultManager.h"

namespace {

using Merlow::FaultSource;
using Merlow::BbBci::BbBciFaults;
using Merlow::BbBci::BbBciHwFaultLabel;
using support::Bytes;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// What both fault indications begin with, 144 bytes: fault 0x0705, case 0x0102, additional data 0x11 to
/// 0x44.
Bytes faultInd(const std::string& number, const std::string& id, const std::string& length,
               const std::string& description)
{
    Bytes bytes = support::messageFromHex(number + " 00000001 0000012c " + id + "eeee");
    bytes.insert(bytes.end(), description.begin(), description.end());
    bytes.resize(128);
    const Bytes tail = support::messageFromHex("00000000 " + length + "eeee 00110022 00330044 0102eeee");
    bytes.insert(bytes.end(), tail.begin() + 4, tail.end());
    return bytes;
}

Bytes labelInd(const std::string& id, const std::string& description, const std::string& recoveryTime,
               const std::string& label)
{
    Bytes bytes = faultInd("0165a101", id, "0000", description);
    const Bytes time = support::messageFromHex("00000000 " + recoveryTime);
    bytes.insert(bytes.end(), time.begin() + 4, time.end());
    bytes.insert(bytes.end(), label.begin(), label.end());
    return bytes;
}

class BbBciFaultsTest : public bbbci::BbBciTest {
protected:
    BbBciFaultsTest() { m_faults.initialize(); }
    void subscribe()
    {
        m_faults.sendSubscribeFaultsReq(
            m_peer.mbox(), m_address, [this] { ++m_confirms; }, [this] { ++m_rejects; });
    }

    support::RecordingFaultManager m_manager;
    BbBciFaults m_faults{m_manager};
    int m_confirms = 0;
    int m_rejects = 0;
};

TEST_F(BbBciFaultsTest, sendsTheGivenReferences)
{
    subscribe();
    EXPECT_EQ(request(), "0165800a 00000001 0000012c");
}

TEST_F(BbBciFaultsTest, theAnswersAreReported)
{
    subscribe();
    answer("0165800b 00000001 0000012c");
    EXPECT_EQ(m_confirms, 1);
    answer(reject("0165800c", "no place"));
    EXPECT_EQ(m_rejects, 1);
    EXPECT_THAT(errors(), ElementsAre(receivedReject("TARN_BC_SUBSCRIBE_FAULTS_REJ", "no place")));
}

TEST_F(BbBciFaultsTest, anIndicationBecomesAFaultOfThisSource)
{
    answer(faultInd("0165800d", "0705", "0002", "fan 2 stands"));
    ASSERT_EQ(m_manager.added.size(), 1U);
    const auto& fault = m_manager.added.front();
    EXPECT_EQ(fault.source, FaultSource::BB_BCI);
    EXPECT_EQ(fault.faultId, 0x0705);
    EXPECT_EQ(fault.faultCase, 0x0102);
    EXPECT_EQ(fault.faultDescription, "fan 2 stands");
    EXPECT_EQ(fault.recoveryTime, 0U);
    EXPECT_EQ(fault.hwFaultLabel, "");
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_THAT(
        m_log.texts(bbbci::Event::RecSig),
        ElementsAre("Received signal TARN_BC_FAULT_IND: clientRef: 1, serverRef: 300, faultId: 0x705, "
                    "faultDescription: fan 2 stands, faultCase: 258, recoveryTime: 0, "
                    "hwFaultLabel: empty, additionalData: 0x11 0x22"));
}

TEST_F(BbBciFaultsTest, additionalDataOfAnyAnnouncedLengthChangesNothing)
{
    const std::pair<const char*, const char*> lengths[] = {
        {"0000", "additionalData:"},
        {"0001", "additionalData: 0x11"},
        {"0004", "additionalData: 0x11 0x22 0x33 0x44"},
        {"0005", "additionalData: 0x11 0x22 0x33 0x44"},
        {"ffff", "additionalData: 0x11 0x22 0x33 0x44"},
    };
    for (const auto& [length, traced] : lengths) {
        SCOPED_TRACE(length);
        m_manager.added.clear();
        m_log.clear();
        answer(faultInd("0165800d", "0705", length, "fan 2 stands"));
        ASSERT_EQ(m_manager.added.size(), 1U);
        EXPECT_EQ(toString(m_manager.added.front()),
                  "faultId: 0x705, faultDescription: fan 2 stands, faultCase: 258, recoveryTime: 0, "
                  "hwFaultLabel: empty");
        EXPECT_THAT(m_log.texts(bbbci::Event::RecSig), ElementsAre(testing::EndsWith(traced)));
    }
}

TEST_F(BbBciFaultsTest, aDescriptionWithoutAnEndIsCutAtItsArray)
{
    answer(faultInd("0165800d", "0705", "0000", std::string(112, 'x')));
    ASSERT_EQ(m_manager.added.size(), 1U);
    EXPECT_EQ(m_manager.added.front().faultDescription, std::string(110, 'x'));
}

TEST_F(BbBciFaultsTest, aRefusedFaultIsTraced)
{
    m_manager.takes = false;
    answer(faultInd("0165800d", "0705", "0000", "fan"));
    EXPECT_THAT(errors(), ElementsAre("Removing active fault 1797 from bc agent failed"));
}

TEST_F(BbBciFaultsTest, aCeaseRemovesTheFault)
{
    answer("0165800e 00000001 0000012c 0705 0002 0011 0022 0033 0044 0102 0000");
    EXPECT_THAT(m_manager.removed, ElementsAre(0x0705));
    EXPECT_THAT(m_log.texts(bbbci::Event::RecSig),
                ElementsAre("Received signal TARN_BC_FAULTCEASE_IND: clientRef: 1, serverRef: 300, "
                            "faultId: 0x705, faultCase: 258, additionalData: 0x11 0x22"));
    answer("0165800e 00000001 0000012c 0301 ffff 0011 0022 0033 0044 0102 0000");
    EXPECT_THAT(m_manager.removed, ElementsAre(0x0705, 0x0301));
}

TEST_F(BbBciFaultsTest, shortSignalsAreTracedAndDropped)
{
    subscribe();
    auto ind = faultInd("0165800d", "0705", "0000", "fan");
    ind.resize(143);
    answer(ind);
    EXPECT_TRUE(tracedAsShort("TARN_BC_FAULT_IND (0x165800d)", "143 of 144"));
    answer("0165800e 00000001 0000012c 0705");
    EXPECT_TRUE(tracedAsShort("TARN_BC_FAULTCEASE_IND (0x165800e)", "14 of 28"));
    answer("0165800b 00000001");
    EXPECT_TRUE(tracedAsShort("TARN_BC_SUBSCRIBE_FAULTS_CFM (0x165800b)", "8 of 12"));
    answer("0165800c 00000001");
    EXPECT_TRUE(tracedAsShort("TARN_BC_SUBSCRIBE_FAULTS_REJ (0x165800c)", "8 of 128"));
    EXPECT_THAT(m_manager.added, IsEmpty());
    EXPECT_THAT(m_manager.removed, IsEmpty());
    EXPECT_EQ(m_confirms + m_rejects, 0);
}

TEST_F(BbBciFaultsTest, answersWithoutACallbackRaiseTheStandardError)
{
    EXPECT_THROW(answer("0165800b 00000001 0000012c"), std::bad_function_call);
    EXPECT_THROW(answer(reject("0165800c", "no")), std::bad_function_call);
}

TEST_F(BbBciFaultsTest, theHandlersOfTheSubscriptionGoAlone)
{
    subscribe();
    m_faults.removeInitializationMessageHandlers();
    answer("0165800b 00000001 0000012c");
    answer(reject("0165800c", "no"));
    EXPECT_THAT(m_board.unhandled(), ElementsAre(0x165800BU, 0x165800CU));
    answer(faultInd("0165800d", "0705", "0000", "fan"));
    answer("0165800e 00000001 0000012c 0705 0000 0000 0000 0000 0000 0000 0000");
    EXPECT_EQ(m_manager.added.size(), 1U);
    EXPECT_EQ(m_manager.removed.size(), 1U);

    m_faults.removeMessageHandlers();
    answer(faultInd("0165800d", "0705", "0000", "fan"));
    answer("0165800e 00000001 0000012c 0705 0000 0000 0000 0000 0000 0000 0000");
    EXPECT_THAT(m_board.unhandled(), ElementsAre(0x165800BU, 0x165800CU, 0x165800DU, 0x165800EU));
}

TEST_F(BbBciFaultsTest, handlersGoWithTheObject)
{
    {
        support::RecordingFaultManager manager;
        const BbBciFaults other(manager);
    }
    answer(faultInd("0165800d", "0705", "0000", "fan"));
    answer("0165800b 00000001 0000012c");
    EXPECT_THAT(m_board.unhandled(), ElementsAre(0x165800DU, 0x165800BU));
    EXPECT_THAT(m_manager.added, IsEmpty());
}

class BbBciHwFaultLabelTest : public bbbci::BbBciTest {
protected:
    BbBciHwFaultLabelTest() { m_labels.initialize(); }
    void subscribe()
    {
        m_labels.sendSubscribeHwFaultLabelReq(
            m_peer.mbox(), {.clientRef = 2, .serverRef = 300}, [this] { ++m_confirms; },
            [this] { ++m_rejects; });
    }

    support::RecordingFaultManager m_manager;
    BbBciHwFaultLabel m_labels{m_manager};
    int m_confirms = 0;
    int m_rejects = 0;
};

TEST_F(BbBciHwFaultLabelTest, sendsTheGivenReferences)
{
    subscribe();
    EXPECT_EQ(request(), "0165a107 00000002 0000012c");
}

TEST_F(BbBciHwFaultLabelTest, theAnswersAreReported)
{
    subscribe();
    answer("0165a104 00000002 0000012c");
    EXPECT_EQ(m_confirms, 1);
    answer(reject("0165a105", "no place"));
    EXPECT_EQ(m_rejects, 1);
    EXPECT_THAT(errors(), ElementsAre(receivedReject("TARN_BC_SUBSCRIBE_FAULTS_REJ", "no place")));
}

TEST_F(BbBciHwFaultLabelTest, anIndicationBecomesAFaultWithRecoveryTimeAndLabel)
{
    answer(labelInd("0101", "board is hot", "00010203", std::string("PSU-1\0ignored", 13)));
    ASSERT_EQ(m_manager.added.size(), 1U);
    const auto& fault = m_manager.added.front();
    EXPECT_EQ(fault.source, FaultSource::BB_BCI);
    EXPECT_EQ(fault.faultId, 0x0101);
    EXPECT_EQ(fault.faultCase, 0x0102);
    EXPECT_EQ(fault.faultDescription, "board is hot");
    EXPECT_EQ(fault.recoveryTime, 0x00010203U);
    EXPECT_EQ(fault.hwFaultLabel, "PSU-1");
    EXPECT_THAT(
        m_log.texts(bbbci::Event::RecSig),
        ElementsAre(HasSubstr("TARN_BC_FAULT_WITH_RECOVERY_TIME_AND_HW_FAULT_LABEL_IND: clientRef: 1, "
                              "serverRef: 300, faultId: 0x101")));
}

TEST_F(BbBciHwFaultLabelTest, aLabelEndsWithTheSignalAtTheLatest)
{
    answer(labelInd("0101", "hot", "00000001", std::string(300, 'L')));
    answer(labelInd("0101", "hot", "00000001", ""));
    ASSERT_EQ(m_manager.added.size(), 2U);
    EXPECT_EQ(m_manager.added[0].hwFaultLabel, std::string(300, 'L'));
    EXPECT_EQ(m_manager.added[1].hwFaultLabel, "");
}

TEST_F(BbBciHwFaultLabelTest, aRefusedFaultIsTraced)
{
    m_manager.takes = false;
    answer(labelInd("0705", "fan", "00000000", ""));
    EXPECT_THAT(errors(), ElementsAre("active fault 0x705 from BB-BCI added failed"));
}

TEST_F(BbBciHwFaultLabelTest, ceasesAreNotItsOwn)
{
    answer("0165800e 00000001 0000012c 0705 0000 0000 0000 0000 0000 0000 0000");
    EXPECT_THAT(m_board.unhandled(), ElementsAre(0x165800EU));
    EXPECT_THAT(m_manager.removed, IsEmpty());
}

TEST_F(BbBciHwFaultLabelTest, shortSignalsAreTracedAndDropped)
{
    auto ind = labelInd("0101", "hot", "00000001", "");
    ind.resize(147);
    answer(ind);
    EXPECT_TRUE(
        tracedAsShort("TARN_BC_FAULT_WITH_RECOVERY_TIME_AND_HW_FAULT_LABEL_IND (0x165a101)", "147 of 148"));
    answer("0165a104 00000001");
    EXPECT_TRUE(tracedAsShort("TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_CFM (0x165a104)", "8 of 12"));
    answer("0165a105 00000001");
    EXPECT_TRUE(tracedAsShort("TARN_BC_SUBSCRIBE_FAULTS_WITH_HW_FAULT_LABEL_REJ (0x165a105)", "8 of 128"));
    EXPECT_THAT(m_manager.added, IsEmpty());
}

TEST_F(BbBciHwFaultLabelTest, answersWithoutACallbackRaiseTheStandardError)
{
    EXPECT_THROW(answer("0165a104 00000002 0000012c"), std::bad_function_call);
    EXPECT_THROW(answer(reject("0165a105", "no")), std::bad_function_call);
}

TEST_F(BbBciHwFaultLabelTest, handlersGoInTwoSteps)
{
    m_labels.removeInitializationMessageHandlers();
    answer("0165a104 00000002 0000012c");
    answer(labelInd("0101", "hot", "00000001", ""));
    EXPECT_EQ(m_manager.added.size(), 1U);
    m_labels.removeMessageHandlers();
    answer(labelInd("0101", "hot", "00000001", ""));
    EXPECT_EQ(m_manager.added.size(), 1U);
    EXPECT_THAT(m_board.unhandled(), ElementsAre(0x165A104U, 0x165A101U));
}

class BbBciIntoFaultManagerTest : public bbbci::BbBciTest {
protected:
    BbBciIntoFaultManagerTest()
    {
        m_manager.subscribeForFaultNotifications(
            [this](const Merlow::FaultData& fault, unsigned int) { m_shown.push_back(fault.faultId); },
            [this](const Merlow::FaultData& fault) { m_gone.push_back(fault.faultId); });
        m_faults.initialize();
        m_labels.initialize();
    }

    Merlow::FaultManager m_manager;
    BbBciFaults m_faults{m_manager};
    BbBciHwFaultLabel m_labels{m_manager};
    std::vector<std::uint16_t> m_shown;
    std::vector<std::uint16_t> m_gone;
};

TEST_F(BbBciIntoFaultManagerTest, faultsOfTheHierarchyAreTakenAndEnd)
{
    answer(faultInd("0165800d", "0103", "0000", "too hot"));
    EXPECT_THAT(m_shown, ElementsAre(0x0103));
    answer("0165800e 00000001 0000012c 0103 0000 0000 0000 0000 0000 0000 0000");
    EXPECT_THAT(m_gone, ElementsAre(0x0103));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(BbBciIntoFaultManagerTest, idsOutsideTheHierarchyAreRefused)
{
    answer(faultInd("0165800d", "0705", "0000", "fan"));
    answer(labelInd("0705", "fan", "00000000", ""));
    EXPECT_THAT(m_shown, IsEmpty());
    EXPECT_THAT(errors(), Contains("Removing active fault 1797 from bc agent failed"));
    EXPECT_THAT(errors(), Contains("active fault 0x705 from BB-BCI added failed"));
}

TEST_F(BbBciIntoFaultManagerTest, theEndOfAnUnknownFaultIsTheManagersAffair)
{
    answer("0165800e 00000001 0000012c 0103 0000 0000 0000 0000 0000 0000 0000");
    EXPECT_THAT(m_gone, IsEmpty());
    ASSERT_EQ(errors().size(), 1U);
    EXPECT_THAT(errors().front(), HasSubstr("0x103"));
}

} // namespace
