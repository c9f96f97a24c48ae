#include "ingest/collectors/LibvirtCollector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "ingest/OneCollector.h"
#include "ingest/QORMachine.h"
#include "ingest/collectors/LibvirtSources.h"
#include "support/HostDatabase.h"

namespace QOR {
namespace {

using test::queryRows;
using test::queryText;
using test::Row;
using testing::HasSubstr;

constexpr const char* ownDomain = "6695eb01-f6a4-8304-79aa-97f2502e193f";  // of test:///default
constexpr const char* shopDomain = "0b9f6a52-33a0-4c55-9d0c-0d4a3c1f2e10";

struct DomainEnd {
    void operator()(virDomainPtr domain) const { virDomainFree(domain); }
};
using Domain = std::unique_ptr<virDomain, DomainEnd>;

/// The library's own hypervisor, whose domains live as long as a connection to it: this one, which changes them.
class Hypervisor {
public:
    Hypervisor() : m_connection(virConnectOpen("test:///default"), &virConnectClose) {
        virSetErrorFunc(nullptr, [](void*, virErrorPtr) {});
    }

    Domain find(const std::string& uuid) const {
        return Domain(virDomainLookupByUUIDString(m_connection.get(), uuid.c_str()));
    }
    Domain define(const std::string& more = "", const std::string& name = "shop") const {
        return Domain(virDomainDefineXML(m_connection.get(), definition(more, name).c_str()));
    }
    /// One that is there only while it runs.
    Domain create() const { return Domain(virDomainCreateXML(m_connection.get(), definition("", "shop").c_str(), 0)); }
    static bool snapshot(const Domain& domain, const std::string& name) {
        const auto made = virDomainSnapshotCreateXML(
            domain.get(),
            ("<domainsnapshot><name>" + name + "</name><description>before all</description></domainsnapshot>").c_str(),
            0);
        return made != nullptr && virDomainSnapshotFree(made) == 0;
    }
    static bool removeSnapshot(const Domain& domain, const std::string& name) {
        const auto one = virDomainSnapshotLookupByName(domain.get(), name.c_str(), 0);
        const bool isDone = virDomainSnapshotDelete(one, 0) == 0;
        virDomainSnapshotFree(one);
        return isDone;
    }

private:
    static std::string definition(const std::string& more, const std::string& name) {
        return "<domain type='test'><name>" + name + "</name><uuid>" + shopDomain +
               "</uuid><title>The shop</title><description>it sells</description>"
               "<memory unit='MiB'>2048</memory><vcpu>2</vcpu>" +
               more + "<os><type arch='x86_64'>hvm</type></os></domain>";
    }
    const std::unique_ptr<virConnect, int (*)(virConnectPtr)> m_connection;
};

class LibvirtCollectorTest : public testing::Test {
protected:
    LibvirtCollectorTest() {
        registerCollectors();  // the host's own keeps its name
        std::filesystem::create_directories(m_root / "etc");
        std::ofstream(m_root / "etc/machine-id") << "0123456789abcdef0123456789abcdef\n";
        m_database.open();
        m_collector.setSources({"test:///default"});
    }

    QORCollectResult collect() { return test::runOnce(m_collector, m_root.path()); }
    static std::vector<Row> lives() {
        return queryRows("SELECT title, state, transition FROM \"vEnvironment\" ORDER BY title", 3);
    }
    static std::vector<Row> operations() {
        return queryRows("SELECT op, status FROM \"vOpLog\" WHERE eid = '" + std::string(shopDomain) + "' ORDER BY " +
                             "(SELECT seq FROM qor_operation o WHERE o.id = \"vOpLog\".id)",
                         2);
    }
    static std::string textOf(const std::string& column) {
        return queryText("SELECT " + column + " FROM \"vEnvironment\" WHERE eid = '" + shopDomain + "'");
    }
    /// The source is a file that describes a hypervisor.
    void use(const std::string& domains) {
        const std::string file = m_root.file("node.xml");
        std::ofstream(file) << "<node>" << domains << "</node>";
        m_collector.setSources({"test://" + file});
    }

    const test::TemporaryDirectory m_root;
    test::HostDatabase m_database{test::TestTables::Own};
    const Hypervisor m_hypervisor;
    LibvirtCollector m_collector;
};

TEST_F(LibvirtCollectorTest, WithoutASocketThereIsNoSuchSource) {
    m_collector.setSources({});
    const QORCollectResult result = collect();
    EXPECT_EQ(result.outcome, QORCollectOutcome::None) << result.text;
    EXPECT_EQ(lives(), std::vector<Row>());
}

TEST_F(LibvirtCollectorTest, DomainsAreEnvironmentsBelowTheMachine) {
    const Domain shop = m_hypervisor.define();
    ASSERT_NE(shop, nullptr);
    const QORCollectResult result = collect();
    EXPECT_EQ(result.outcome, QORCollectOutcome::Done) << result.text;
    EXPECT_EQ(lives(), (std::vector<Row>{{"The shop", "3", "0"}, {"test", "6", "0"}}));
    EXPECT_EQ(queryRows("SELECT eid, parent_eid, name, description, type, architecture, memory FROM \"vEnvironment\" "
                        "WHERE title = 'The shop'",
                        7),
              (std::vector<Row>{{shopDomain, describeMachine(m_root.path()).eid.toString(), "shop", "it sells",
                                 "virtual machine", "x86_64", "2048"}}));
    EXPECT_THAT(textOf("config"), HasSubstr("<cpus>2</cpus><hypervisor>test</hypervisor>"));
    EXPECT_THAT(textOf("virtual_config"), HasSubstr("<memory>2048</memory>"));
    EXPECT_EQ(queryText("SELECT count(*) FROM \"vOpLog\""), "0") << "what was before is no news";
    EXPECT_EQ(queryText("SELECT count(*) FROM \"vEventLog\""), "0");
}

TEST_F(LibvirtCollectorTest, ADomainThatIsAsItWasIsNotWrittenAgain) {
    const Domain shop = m_hypervisor.define();
    ASSERT_TRUE(Hypervisor::snapshot(shop, "first"));
    collect();
    EXPECT_EQ(collect().stored.accepted(), 0U);
    LibvirtCollector later;  // as of an agent that was started again
    later.setSources({"test:///default"});
    EXPECT_EQ(test::runOnce(later, m_root.path()).stored.accepted(), 0U);
}

TEST_F(LibvirtCollectorTest, WhatHappensToADomainIsToldWithItsState) {
    collect();
    const Domain shop = m_hypervisor.define();
    struct Step {
        std::function<int()> change;
        std::string state;
        Row operation;
    };
    const std::vector<Step> steps{
        {[] { return 0; }, "3", {"define", "0"}},
        {[&] { return virDomainCreate(shop.get()); }, "6", {"start", "0"}},
        {[&] { return virDomainSuspend(shop.get()); }, "5", {"suspend", "0"}},
        {[&] { return virDomainResume(shop.get()); }, "6", {"resume", "0"}},
        {[&] { return virDomainDestroy(shop.get()); }, "3", {"stop", "0"}},
        {[&] { return virDomainCreate(shop.get()); }, "6", {"start", "0"}},
        {[&] { return virDomainManagedSave(shop.get(), 0); }, "4", {"save", "0"}},
        {[&] { return virDomainCreate(shop.get()); }, "6", {"start", "0"}},
        {[&] { return virDomainShutdown(shop.get()); }, "3", {"stop", "0"}},
        {[&] { return virDomainUndefine(shop.get()); }, "1", {"undefine", "0"}},
    };
    std::vector<Row> expected;
    for (const Step& step : steps) {
        ASSERT_EQ(step.change(), 0) << step.operation[0] << ": " << virGetLastErrorMessage();
        const QORCollectResult result = collect();
        EXPECT_EQ(result.outcome, QORCollectOutcome::Done) << result.text;
        expected.push_back(step.operation);
        EXPECT_EQ(operations(), expected);
        EXPECT_EQ(textOf("state"), step.state) << "after " << step.operation[0];
        EXPECT_EQ(collect().stored.accepted(), 0U) << "it is told once";
    }
    EXPECT_EQ(textOf("name"), "shop") << "what it was is still known";
    EXPECT_EQ(queryText("SELECT count(*) FROM \"vEventLog\" WHERE source = 'libvirt' AND category = 'env_status'"),
              std::to_string(steps.size()));
    EXPECT_EQ(queryText("SELECT info FROM \"vEventLog\" WHERE info LIKE '%>destroyed<%'"),
              "<info><domain><name>shop</name></domain><event>stopped</event><detail>destroyed</detail>"
              "<old_state>6</old_state><new_state>3</new_state><env><eid>" +
                  std::string(shopDomain) + "</eid></env></info>");
}

TEST_F(LibvirtCollectorTest, ADomainThatIsDefinedAgainIsToldAgain) {
    collect();
    for (int round = 0; round < 2; ++round) {
        const Domain shop = m_hypervisor.define();
        collect();
        ASSERT_EQ(virDomainUndefine(shop.get()), 0);
        collect();
    }
    EXPECT_EQ(operations(), (std::vector<Row>{{"define", "0"}, {"undefine", "0"}, {"define", "0"}, {"undefine", "0"}}));
}

TEST_F(LibvirtCollectorTest, ADomainThatIsThereOnlyWhileItRunsStartsAndStops) {
    collect();
    const Domain shop = m_hypervisor.create();
    ASSERT_NE(shop, nullptr);
    collect();
    EXPECT_EQ(textOf("state"), "6");
    EXPECT_EQ(textOf("virtual_config"), "<null>") << "it is not meant to be anything later";
    ASSERT_EQ(virDomainDestroy(shop.get()), 0);
    collect();
    EXPECT_EQ(operations(), (std::vector<Row>{{"start", "0"}, {"stop", "0"}}));
    EXPECT_EQ(textOf("state"), "1");
}

TEST_F(LibvirtCollectorTest, AChangedDefinitionIsTakenOver) {
    Domain shop = m_hypervisor.define();
    collect();
    shop = m_hypervisor.define(
        "<metadata><l:libosinfo xmlns:l='http://libosinfo.org/xmlns/libvirt/domain/1.0'>"
        "<l:os id='http://debian.org/debian/12'/></l:libosinfo></metadata>");
    ASSERT_NE(shop, nullptr);
    EXPECT_EQ(collect().stored.of(QORRecordKind::Environment).replaced, 1U);
    EXPECT_EQ(textOf("os_name"), "debian");
    EXPECT_EQ(textOf("os_version"), "12");
}

TEST_F(LibvirtCollectorTest, SnapshotsAreBackupsAndDeletedOnesAreMarked) {
    const Domain shop = m_hypervisor.define();
    ASSERT_TRUE(Hypervisor::snapshot(shop, "first"));
    collect();
    const auto backups = [] {
        return queryRows("SELECT eid, type, description, name FROM \"vBackupInfo\" ORDER BY description", 4);
    };
    EXPECT_EQ(backups(), (std::vector<Row>{{shopDomain, "1", "first: before all", "shop"}}));
    const std::string id = queryText("SELECT id FROM \"vBackupInfo\"");
    EXPECT_THAT(textOf("virtual_config"), HasSubstr("<base_snapshot_id>" + id + "</base_snapshot_id>"));

    ASSERT_TRUE(Hypervisor::snapshot(shop, "second"));
    collect();
    EXPECT_EQ(backups(), (std::vector<Row>{{shopDomain, "1", "first: before all", "shop"},
                                           {shopDomain, "1", "second: before all", "shop"}}));
    ASSERT_TRUE(Hypervisor::removeSnapshot(shop, "first"));
    collect();
    EXPECT_EQ(backups(),
              (std::vector<Row>{{shopDomain, "3", "first", "shop"}, {shopDomain, "1", "second: before all", "shop"}}));
    EXPECT_EQ(queryText("SELECT id FROM \"vBackupInfo\" WHERE type = 3"), id) << "it is the same one";
    EXPECT_EQ(collect().stored.accepted(), 0U);
}

TEST_F(LibvirtCollectorTest, CheckpointsAreBackups) {
    const Domain shop = m_hypervisor.define(
        "<devices><disk type='file' device='disk'><source file='/shop.img'/>"
        "<target dev='vda' bus='virtio'/></disk></devices>");
    ASSERT_EQ(virDomainCreate(shop.get()), 0);
    const auto made =
        virDomainCheckpointCreateXML(shop.get(), "<domaincheckpoint><name>monday</name></domaincheckpoint>", 0);
    ASSERT_NE(made, nullptr) << virGetLastErrorMessage();
    virDomainCheckpointFree(made);
    collect();
    EXPECT_EQ(queryRows("SELECT eid, type, description FROM \"vBackupInfo\"", 3),
              (std::vector<Row>{{shopDomain, "2", "monday"}}));
    EXPECT_THAT(textOf("config"), HasSubstr("<disk><target>vda</target><device>disk</device>"));
}

TEST_F(LibvirtCollectorTest, AddressesThatNetworksHaveLentAreTheEnvironments) {
    const Domain shop = m_hypervisor.define(
        "<devices><interface type='network'><mac address='52:54:00:00:00:01'/><source network='default'/></interface>"
        "</devices>");
    ASSERT_EQ(virDomainCreate(shop.get()), 0) << virGetLastErrorMessage();
    collect();
    EXPECT_THAT(textOf("ip"), testing::StartsWith("192.168."));
    EXPECT_THAT(textOf("config"), HasSubstr("<interface><mac>52:54:00:00:00:01</mac>"));
}

std::string describedDomain(const std::string& name, const std::string& uuid, const std::string& more = "") {
    return "<domain type='test' xmlns:test='http://libvirt.org/schemas/domain/test/1.0'><name>" + name +
           "</name><uuid>" + uuid + "</uuid><memory>8192</memory><os><type>hvm</type></os>" + more + "</domain>";
}

TEST_F(LibvirtCollectorTest, ACrashIsAFailedOperation) {
    use(describedDomain("shop", shopDomain, "<test:domainstate/>"));
    collect();
    EXPECT_EQ(textOf("state"), "6");
    use(describedDomain("shop", shopDomain, "<test:runstate>6</test:runstate>"));
    const QORCollectResult result = collect();
    EXPECT_EQ(result.outcome, QORCollectOutcome::Done) << result.text;
    EXPECT_EQ(textOf("state"), "7");
    EXPECT_EQ(operations(), (std::vector<Row>{{"crash", "1"}}));
}

TEST_F(LibvirtCollectorTest, OneThatIsBeingShutDownIsOnItsWay) {
    use(describedDomain("shop", shopDomain, "<test:runstate>4</test:runstate>"));
    collect();
    EXPECT_EQ(lives(), (std::vector<Row>{{"shop", "6", "3"}}));
}

TEST_F(LibvirtCollectorTest, OddTextsAreReadable) {
    use(describedDomain("sh\xc3\xb6p &lt;&#9;\xe2\x80\xae", shopDomain,
                        "<description>" + std::string(100'000, 'x') + "</description>"));
    const QORCollectResult result = collect();
    EXPECT_EQ(result.outcome, QORCollectOutcome::Done) << result.text;
    EXPECT_THAT(textOf("name"), HasSubstr("sh\xc3\xb6p <"));
    EXPECT_EQ(textOf("length(description)"), "4096");
    EXPECT_EQ(collect().stored.accepted(), 0U) << "its position holds such names, too";
}

TEST_F(LibvirtCollectorTest, ASourceThatFailsIsToldAndKeepsWhatWasToldOfIt) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "libvirt's own hypervisor gives up a file that it cannot read while it holds its lock";
#endif
    use(describedDomain("shop", shopDomain));
    collect();
    std::ofstream(m_root / "node.xml") << "<node";
    const QORCollectResult result = collect();
    EXPECT_EQ(result.outcome, QORCollectOutcome::Failed);
    EXPECT_THAT(result.text, HasSubstr("node.xml: it cannot be reached"));
    use(describedDomain("shop", shopDomain));
    EXPECT_EQ(collect().stored.accepted(), 0U) << "its domain was never away";
}

TEST_F(LibvirtCollectorTest, OneSourceThatFailsKeepsNobodyFromTheOthers) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "libvirt's own hypervisor gives up a file that it cannot read while it holds its lock";
#endif
    m_collector.setSources({"test:///no/such/file", "test:///default"});
    const QORCollectResult result = collect();
    EXPECT_EQ(result.outcome, QORCollectOutcome::Failed);
    EXPECT_THAT(result.text, HasSubstr("test:///no/such/file"));
    EXPECT_EQ(lives(), (std::vector<Row>{{"test", "6", "0"}}));
    EXPECT_EQ(queryText("SELECT eid FROM \"vEnvironment\""), ownDomain);
}

TEST_F(LibvirtCollectorTest, AFloodIsBoundedAndWhatItLeftOutIsToldAsOneEvent) {
    LibvirtCollector bounded({.domains = 100, .backups = 10, .changes = 2, .ofOne = 1});
    use(describedDomain("shop", shopDomain));
    bounded.setSources({"test://" + m_root.file("node.xml")});
    test::runOnce(bounded, m_root.path());
    std::string more;
    for (char digit = '1'; digit <= '5'; ++digit)
        more +=
            describedDomain(std::string("more") + digit, std::string("00000000-0000-4000-8000-00000000000") + digit);
    use(describedDomain("shop", shopDomain) + more);
    test::runOnce(bounded, m_root.path());
    EXPECT_EQ(queryText("SELECT count(*) FROM \"vOpLog\""), "2");
    EXPECT_EQ(queryText("SELECT count(*) FROM \"vEnvironment\""), "6") << "what they are is told of all";
    EXPECT_EQ(queryText("SELECT count(*) FROM \"vEventLog\" WHERE info LIKE '%<left_out>8</left_out>%'"), "1");
    EXPECT_EQ(test::runOnce(bounded, m_root.path()).stored.accepted(), 0U) << "it is not told later";
}

TEST(LibvirtSources, AreOfThisMachineAndRunNoProgram) {
    for (const char* uri : {"qemu:///system", "test:///default", "qemu+unix:///system?socket=/run/x", "lxc:///"})
        EXPECT_NO_THROW(checkLibvirtSource(uri)) << uri;
    for (const char* uri : {"", "qemu", "://", "qemu://host/system", "qemu+ssh:///system", "qemu+ext:///system",
                            "qemu:///session", "qemu:///session?x=y", "qemu:///embed"})
        EXPECT_THROW(checkLibvirtSource(uri), QORException) << uri;
}

}  // namespace
}  // namespace QOR
