#include "schemaTable.h"
#include "swmi.pb.h"

#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using support::inside;

const std::vector<support::SchemaRow>& swmiRows()
{
    static const std::vector<support::SchemaRow> rows = {
        {"ServerMetadata", inside, {"1 name string = ux:SWMServer"}},
        {"PreinstalledSupport", inside, {}},
        {"SwCompListSupport", inside, {}},
        {"LockableResourceSwStoreSupport", inside, {}},
        {"BootSwInventorySupport", inside, {"1 boot_sw_inventory repeated swm.BootSwInventory"}},
        {"BootSwInventory", inside, {"1 product_number string", "2 product_revision string"}},
        {"LoadingBlockSizeSupport", inside, {"1 block_size int32"}},
        {"SetSlotWorkingSupport", inside, {}},
        {"PullLoadSupport", inside, {}},
        {"Credentials", inside, {"1 certificate swm.Credentials.Certificate", "2 password string"}},
        {"Credentials.Certificate",
         inside,
         {"1 certificate string", "2 key string", "3 trust_certificates string"}},
        {"ProductInventory",
         inside,
         {"1 product_number string", "2 revision string", "3 running bool",
          "4 software_type swm.ProductInventory.SoftwareType", "5 size uint32",
          "6 status swm.ProductInventory.Status", "7 access swm.ProductInventory.Access",
          "8 sequence_number uint32", "Access: 0 READ_ONLY 1 READ_WRITE",
          "SoftwareType: 0 AUAPPLIC 1 AUBOOT 2 PREINSTALLED", "Status: 0 VALID 1 EMPTY 2 ERASING 3 WRITING"}},
        {"ConnEstablishReq", 1, {"1 supported_protocol_revisions repeated uint32"}},
        {"ConnEstablishCfm", 2, {"1 selected_protocol_revision uint32"}},
        {"ConnEstablishRej",
         3,
         {"1 reason swm.ConnEstablishRej.Reason",
          "Reason: 1 NO_SUPPORTED_PROTOCOL_REVISION 3 MAX_NUMBER_OF_CONNECTIONS_EXCEEDED"}},
        {"GetCapabilitiesReq", 4, {}},
        {"GetCapabilitiesCfm",
         5,
         {"1 preinstalled_support swm.PreinstalledSupport", "2 sw_comp_list_support swm.SwCompListSupport",
          "3 lockable_resource_sw_store_support swm.LockableResourceSwStoreSupport",
          "4 boot_sw_inventory_support swm.BootSwInventorySupport", "5 pull_load_support swm.PullLoadSupport",
          "6 loading_block_size_support swm.LoadingBlockSizeSupport",
          "7 set_slot_working_support swm.SetSlotWorkingSupport"}},
        {"GetCapabilitiesRej", 6, {"1 reason swm.GetCapabilitiesRej.Reason", "Reason: 0 OTHER_UNSPECIFIED"}},
        {"AcquireResourceReq", 7, {"1 ticket_request_reference uint32", "2 resource swm.Resource"}},
        {"AcquireResourceCfm",
         8,
         {"1 ticket_request_reference uint32", "2 ticket_number uint32", "3 resource swm.Resource"}},
        {"AcquireResourceRej",
         9,
         {"1 ticket_request_reference uint32", "2 reason swm.AcquireResourceRej.Reason",
          "3 resource swm.Resource", "Reason: 0 UNKNOWN_RESOURCE"}},
        {"AcquireResourceInd", 10, {"1 ticket_number uint32"}},
        {"ReleaseResourceReq", 11, {"1 ticket_number uint32"}},
        {"ReleaseResourceCfm", 12, {"1 ticket_number uint32"}},
        {"ReleaseResourceRej",
         13,
         {"1 ticket_number uint32", "2 reason swm.ReleaseResourceRej.Reason",
          "Reason: 0 INVALID_TICKET_NUMBER"}},
        {"PushLoadInitReq", 14, {"1 ticket_number uint32", "2 software string"}},
        {"PushLoadInitCfm", 15, {"1 ticket_number uint32"}},
        {"PushLoadInitRej",
         16,
         {"1 ticket_number uint32", "2 reason swm.PushLoadInitRej.Reason",
          "Reason: 0 RESOURCE_SHORTAGE 1 INVALID_TICKET_NUMBER 2 ALREADY_LOADED 3 BUSY 4 RUNNING 5 "
          "TICKET_IN_QUEUE 6 INTERNAL_ERROR"}},
        {"PushLoadData", 17, {"1 ticket_number uint32", "2 data bytes", "3 sequence_number uint32"}},
        {"PushLoadAck", 18, {"1 ticket_number uint32", "2 abort bool", "3 sequence_number uint32"}},
        {"PushLoadEndReq", 19, {"1 ticket_number uint32"}},
        {"PushLoadEndCfm",
         20,
         {"1 ticket_number uint32", "2 result swm.PushLoadEndCfm.Result", "Result: 0 COMPLETED 1 FAILED"}},
        {"PushLoadEndRej",
         21,
         {"1 ticket_number uint32", "2 reason swm.PushLoadEndRej.Reason",
          "Reason: 0 INVALID_TICKET_NUMBER 1 TICKET_IN_QUEUE 2 INTERNAL_ERROR 3 UNKNOWN_RESPONSE 4 "
          "INVALID_STATE"}},
        {"PullLoadInitReq",
         22,
         {"1 ticket_number uint32", "2 remote_file_path string", "3 credentials swm.Credentials",
          "4 software string"}},
        {"PullLoadInitCfm", 23, {"1 ticket_number uint32"}},
        {"PullLoadInitRej",
         24,
         {"1 ticket_number uint32", "2 reason swm.PullLoadInitRej.Reason",
          "Reason: 0 RESOURCE_SHORTAGE 1 INVALID_TICKET_NUMBER 2 ALREADY_LOADED 3 "
          "LOADING_ALREADY_IN_PROGRESS 4 INVALID_CREDENTIALS 5 TICKET_IN_QUEUE 6 INTERNAL_ERROR"}},
        {"PullLoadEndInd",
         25,
         {"1 ticket_number uint32", "2 status swm.PullLoadEndInd.Status", "3 file string",
          "4 error_message string",
          "Status: 1 COMPLETED 2 AUTHENTICATION_ERROR 3 FILE_NOT_FOUND 4 APPLICATION_ERROR 5 TIMEOUT"}},
        {"PullLoadAbortReq", 26, {"1 ticket_number uint32"}},
        {"PullLoadAbortCfm", 27, {"1 ticket_number uint32"}},
        {"PullLoadAbortRej",
         28,
         {"1 ticket_number uint32", "2 reason swm.PullLoadAbortRej.Reason",
          "Reason: 0 INVALID_TICKET_NUMBER 1 TICKET_IN_QUEUE 2 NOT_IN_PROGRESS"}},
        {"DeleteReq", 29, {"1 ticket_number uint32", "2 software string"}},
        {"DeleteCfm", 30, {"1 ticket_number uint32"}},
        {"DeleteRej",
         31,
         {"1 ticket_number uint32", "2 reason swm.DeleteRej.Reason",
          "Reason: 0 INVALID_TICKET_NUMBER 1 TICKET_IN_QUEUE 2 TIMEOUT 3 INTERNAL_ERROR 4 BUSY 5 "
          "UNKNOWN_RESPONSE 6 ILLEGAL_SOFTWARE"}},
        {"GetSwProductInvReq", 32, {"1 ticket_number uint32"}},
        {"GetSwProductInvCfm",
         33,
         {"1 ticket_number uint32", "2 product_inventory repeated swm.ProductInventory"}},
        {"GetSwProductInvRej",
         34,
         {"1 ticket_number uint32", "2 reason swm.GetSwProductInvRej.Reason",
          "Reason: 0 INVALID_TICKET_NUMBER 1 TICKET_IN_QUEUE 2 READ_ERROR"}},
        {"SwCompListReq", 35, {"1 ticket_number uint32"}},
        {"SwCompListCfm", 36, {"1 ticket_number uint32"}},
        {"SwCompListRej",
         37,
         {"1 ticket_number uint32", "2 reason swm.SwCompListRej.Reason",
          "Reason: 0 INVALID_TICKET_NUMBER 1 TICKET_IN_QUEUE 2 READ_ERROR"}},
        {"SwCompListData", 38, {"1 ticket_number uint32", "2 end bool", "3 data string"}},
        {"SwCompListAck", 39, {"1 ticket_number uint32", "2 abort bool"}},
        {"GetRunningSwReq", 40, {}},
        {"GetRunningSwCfm", 41, {"1 running_software string"}},
        {"GetRunningSwRej", 42, {"1 reason swm.GetRunningSwRej.Reason", "Reason: 0 READ_ERROR 1 NOT_FOUND"}},
        {"SetCurrentSlotWorkingReq", 43, {}},
        {"SetCurrentSlotWorkingCfm", 44, {}},
        {"SetCurrentSlotWorkingRej",
         45,
         {"1 reason swm.SetCurrentSlotWorkingRej.Reason", "Reason: 0 INTERNAL_ERROR"}},
    };
    return rows;
}

} // namespace

TEST(SwmiSchema, isAsSettled)
{
    const auto& file = *swm::ConnEstablishReq::descriptor()->file();
    support::expectSchema(file, "swm", swmiRows());
    EXPECT_EQ(file.dependency_count(), 0);
    ASSERT_EQ(file.enum_type_count(), 1);
    EXPECT_EQ(support::describeEnum(*file.enum_type(0)), "Resource: 0 SW_STORE");
}

TEST(SwmiSchema, theNumbersFromOneTo45AreAllInUse)
{
    int expected = 1;
    for (const auto& row : swmiRows()) {
        if (row.number != inside) {
            EXPECT_EQ(row.number, expected++) << row.message;
        }
    }
    EXPECT_EQ(expected, 46);
}

TEST(SwmiSchema, everyFieldButThreeIsOptionalAndOnlyTheAddressHasADefault)
{
    const auto& file = *swm::ConnEstablishReq::descriptor()->file();
    std::vector<std::string> repeated;
    std::vector<std::string> defaults;
    for (int i = 0; i < file.message_type_count(); ++i) {
        const auto& message = *file.message_type(i);
        EXPECT_EQ(message.oneof_decl_count(), 0) << message.name();
        for (int j = 0; j < message.field_count(); ++j) {
            const auto& field = *message.field(j);
            EXPECT_FALSE(field.is_required()) << field.full_name();
            if (field.is_repeated()) {
                repeated.push_back(field.full_name());
            }
            if (field.has_default_value()) {
                defaults.push_back(field.full_name());
            }
        }
    }
    EXPECT_EQ(repeated, (std::vector<std::string>{"swm.ConnEstablishReq.supported_protocol_revisions",
                                                  "swm.BootSwInventorySupport.boot_sw_inventory",
                                                  "swm.GetSwProductInvCfm.product_inventory"}));
    EXPECT_EQ(defaults, std::vector<std::string>{"swm.ServerMetadata.name"});
    EXPECT_EQ(swm::ServerMetadata().name(), "ux:SWMServer");
}

TEST(SwmiSchema, messagesWithoutFieldsHaveEmptyBodies)
{
    EXPECT_EQ(swm::GetCapabilitiesReq().SerializeAsString(), "");
    EXPECT_EQ(swm::GetRunningSwReq().SerializeAsString(), "");
    EXPECT_EQ(swm::SetCurrentSlotWorkingReq().SerializeAsString(), "");
    EXPECT_EQ(swm::SetCurrentSlotWorkingCfm().SerializeAsString(), "");
}

TEST(SwmiSchema, repeatedNumbersAreNotPacked)
{
    swm::ConnEstablishReq req;
    req.add_supported_protocol_revisions(3);
    req.add_supported_protocol_revisions(1);
    EXPECT_EQ(req.SerializeAsString(), std::string("\x08\x03\x08\x01", 4));
}
