// Every test executable enters the sandbox, then checks that each test leaves no platform block.
#include <gtest/gtest.h>

#include "os_adapter/test_hooks.h"
#include "support/sandbox.h"
#include "vek_dns_ops.h"

namespace {

class leak_check : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo &) override {
        vekdns::pal_test::clear_faults();
        vekdns::pal_test::track_sites(true);
        baseline_ = vekdns::pal_test::outstanding_blocks();
    }

    void OnTestEnd(const testing::TestInfo &) override {
        vekdns::pal_test::clear_faults();
        vekdns::pal_test::release_clock();
        ORV_NETB_DnsRegisterLogFunc(nullptr);
        ORV_NETB_DnsSetLogLevel(0); // the clean-up below is the harness's, not the test's
        // Workers free their requests after the callback; caches own entries: empty them until settled.
        (void)ORV_NETB_DnsUnReachableIPClean();
        const auto left = [this] {
            return ORV_NETB_DnsCleanBuffer(), vekdns::pal_test::outstanding_blocks() - baseline_;
        };
        if (!vekdns::test::wait_until([&] { return left() == 0; }, std::chrono::seconds(5))) {
            char sites[4096];
            vekdns::pal_test::dump_outstanding(sites, sizeof(sites));
            ADD_FAILURE() << left() << " platform block(s) leaked by this test; allocated at:\n" << sites;
            baseline_ = vekdns::pal_test::outstanding_blocks();
        }
        ORV_NETB_DnsSetLogLevel(5);
    }

    long baseline_ = 0;
};

} // namespace

int main(int argc, char **argv) {
    vekdns::test::enter_sandbox();
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new leak_check);
    return RUN_ALL_TESTS();
}
