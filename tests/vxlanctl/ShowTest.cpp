#include "Memtab/Writer.h"
#include "Operator.h"
#include "Vxlan/types/Bridging.h"
#include "Vxlan/types/L2RibHost.h"

namespace {

using testing::HasSubstr;
using TestVxlanctl::json;

class ShowTest : public TestVxlanctl::OperatorTest {
 protected:
  using Writer = Memtab::Writer<Bridging::MacVlanPair, L2Rib::HostValue>;

  Writer& hosts() {
    if (!writer_) {
      Memtab::Options options;
      options.name = table;
      options.schema = L2Rib::hostSchema;
      options.fields = L2Rib::hostFields;
      writer_.emplace(options);
    }
    return *writer_;
  }

  void publishHost(const char* mac, std::uint32_t vlan, const char* vtep, std::uint32_t moves) {
    L2Rib::HostValue host;
    host.entryType = L2Rib::EntryType::Controller;
    host.moveCount = moves;
    host.hostAttr = static_cast<L2Rib::HostAttr>(16);
    host.lastUpdateTime = 12.5;
    host.dest = L2Rib::CiDest(L2Rib::DestType::VxlanVtep);
    host.dest.intfIs(L2Rib::InlineIntf(Qnet::IntfId("Vxlan1")));
    host.dest.vtepAddrIs(L2Rib::CiVtepIndex::First, Qnet::IpAddr::parse(vtep).value());
    hosts().is({Qnet::EthAddr::parse(mac).value(), Bridging::VlanId(vlan)}, host);
    hosts().publish();
  }

 private:
  std::optional<Writer> writer_;
};

TEST_F(ShowTest, HostsAreReadFromSharedMemoryWithoutAnAgent) {
  publishHost("02:00:00:00:00:0a", 20, "10.0.0.2", 0);
  publishHost("02:00:00:00:00:02", 10, "10.0.0.3", 1);
  publishHost("02:00:00:00:00:01", 10, "10.0.0.2", 100);
  EXPECT_EQ(run({"show", "hosts"}), 0) << err;
  EXPECT_EQ(out,
            "VLAN  MAC                VTI     VTEP      MOVES  ATTR  UPDATED\n"
            "  10  02:00:00:00:00:01  Vxlan1  10.0.0.2    100    16   12.500\n"
            "  10  02:00:00:00:00:02  Vxlan1  10.0.0.3      1    16   12.500\n"
            "  20  02:00:00:00:00:0a  Vxlan1  10.0.0.2      0    16   12.500\n");
}

TEST_F(ShowTest, HostsAreFiltered) {
  publishHost("02:00:00:00:00:0a", 20, "10.0.0.2", 0);
  publishHost("02:00:00:00:00:01", 10, "10.0.0.2", 0);
  EXPECT_EQ(run({"show", "hosts", "--vlan", "20", "--json"}), 0);
  EXPECT_EQ(out,
            "[\n "
            "{\"entryType\":10,\"hostAttr\":16,\"lastUpdateTime\":12.5,\"mac\":\"02:00:00:00:00:0a\","
            "\"moveCount\":0,"
            "\"vlan\":20,\"vtepIp\":\"10.0.0.2\",\"vti\":\"Vxlan1\"}\n]\n");
  EXPECT_EQ(run({"show", "hosts", "--mac", "02:00:00:00:00:0A", "--vtep", "10.0.0.2"}), 0);
  EXPECT_THAT(out, HasSubstr("02:00:00:00:00:0a"));
  EXPECT_EQ(run({"show", "hosts", "--vti", "Vxlan2"}), 1);
  EXPECT_EQ(run({"show", "hosts", "--vtep", "10.0.0.9", "--json"}), 1);
  EXPECT_EQ(out, "[]\n");
}

TEST_F(ShowTest, HostsOfAVniAreThoseOfItsVlan) {
  publishHost("02:00:00:00:00:0a", 20, "10.0.0.2", 0);
  publishHost("02:00:00:00:00:01", 10, "10.0.0.2", 0);
  agent.document = json::parse(R"({"input":{"vlanVniMap":{"Vxlan1":{"10":5010,"20":5020}}}})");
  startAgent();
  EXPECT_EQ(run({"show", "hosts", "--vni", "5020"}), 0);
  EXPECT_THAT(out, HasSubstr("02:00:00:00:00:0a"));
  EXPECT_THAT(out, Not(HasSubstr("02:00:00:00:00:01")));
  EXPECT_EQ(run({"show", "hosts", "--vni", "6000"}), 1);
  EXPECT_EQ(err, "vxlanctl: VNI 6000 is mapped to no VLAN\n");
}

TEST_F(ShowTest, ThatThereIsNoTableIsSaid) {
  EXPECT_EQ(run({"show", "hosts"}), 3);
  EXPECT_EQ(err, "vxlanctl: no host table " + table + " in shared memory: no agent has made it\n");
}

TEST_F(ShowTest, ReceivedHostsSayWhichAreMarked) {
  agent.document = json::parse(R"({"output":{"receivedHosts":{"10":{"02:00:00:00:00:01":{
      "intf":"Vxlan1","entryType":10,"vtepIp":"10.0.0.2","moveCount":3,"hostAttr":16,"lastUpdateTime":7.0,
      "markedForDel":true}}}}})");
  startAgent();
  EXPECT_EQ(run({"show", "hosts", "--received"}), 0) << err;
  EXPECT_EQ(out,
            "VLAN  MAC                VTI     VTEP      MOVES  ATTR  UPDATED  MARKED\n"
            "  10  02:00:00:00:00:01  Vxlan1  10.0.0.2      3    16    7.000  yes\n");
}

TEST_F(ShowTest, FloodsSayWhetherAllOrAnyGetACopy) {
  agent.document = json::parse(R"({"output":{"l2Rib":{"floodSets":{
      "20":{"00:00:00:00:00:00":{"floodSetType":1,"dests":["10.0.0.2","10.0.0.3"]}},
      "3":{"01:00:5e:00:00:01":{"floodSetType":2,"dests":["10.0.0.3"]}}}}}})");
  startAgent();
  EXPECT_EQ(run({"show", "floods"}), 0) << err;
  EXPECT_EQ(out,
            "VLAN  MAC                TO   DESTINATIONS\n"
            "   3  01:00:5e:00:00:01  any  10.0.0.3\n"
            "  20  00:00:00:00:00:00  all  10.0.0.2, 10.0.0.3\n");
  EXPECT_EQ(run({"show", "floods", "--vtep", "10.0.0.2", "--json"}), 0);
  EXPECT_EQ(out,
            "[\n "
            "{\"dests\":[\"10.0.0.2\",\"10.0.0.3\"],\"mac\":\"00:00:00:00:00:00\",\"type\":\"all\",\"vlan\":"
            "20}\n]\n");
}

TEST_F(ShowTest, BumListsAreThoseOfThisSwitch) {
  agent.document = json::parse(R"({"output":{"hardware":{"bumReplicationMode":3,"bumVtepList":{"10":{
      "00:00:00:00:00:00":{"bumVtepIpListType":1,"remoteVtepAddr":["10.0.0.2","10.0.0.11"]}}}}}})");
  startAgent();
  EXPECT_EQ(run({"show", "bum"}), 0) << err;
  EXPECT_EQ(out,
            "VLAN  MAC                TYPE  VTEPS                MODE\n"
            "  10  00:00:00:00:00:00     1  10.0.0.2, 10.0.0.11     3\n");
}

TEST_F(ShowTest, VnisSayWhereTheyAreUsedAndWhatIsPublished) {
  agent.document = json::parse(R"({"input":{"vlanVniMap":{"Vxlan1":{"10":5010,"20":10020}}},
      "agent":{"vnis":{"5010":{"state":"instantiated","hosts":100000,"floodLists":1,"multiPaths":0},
                       "777":{"state":"announced","hosts":0,"floodLists":0,"multiPaths":0}}}})");
  startAgent();
  EXPECT_EQ(run({"show", "vni"}), 0) << err;
  EXPECT_EQ(out,
            "  VNI  STATE          VTI     VLAN   HOSTS  FLOODS  MULTIPATHS\n"
            "  777  announced      -          -       0       0           0\n"
            " 5010  instantiated   Vxlan1    10  100000       1           0\n"
            "10020  not published  Vxlan1    20       -       -           -\n");
  EXPECT_EQ(run({"show", "vni", "--vni", "42"}), 1);
}

TEST_F(ShowTest, VtisSayTheirModes) {
  agent.document = json::parse(R"({"input":{
      "vtiStatus":{"Vxlan2":{},"Vxlan1":{"controllerClientMode":true,"localVtepAddr":"10.0.0.1"}},
      "vlanVniMap":{"Vxlan1":{"10":5010}}}})");
  startAgent();
  EXPECT_EQ(run({"show", "vti"}), 0) << err;
  EXPECT_EQ(out,
            "VTI     VTEP      GATEWAY VTEP  CLIENT  LEARNING  VLANS\n"
            "Vxlan1  10.0.0.1  0.0.0.0       yes     no            1\n"
            "Vxlan2  0.0.0.0   0.0.0.0       no      no            0\n");
}

TEST_F(ShowTest, ConvergenceSaysWhatWaits) {
  agent.document =
      json::parse(R"({"output":{"clientView":{"convergenceInProgress":true},"markedForDelCount":12,
      "convergenceStatus":{"unicastDeferredDeletionInProgress":true,"bumDeferredDeletionInProgress":false}},
      "agent":{"convergence":{"reason":"session lost","seconds":1.5}}})");
  startAgent();
  EXPECT_EQ(run({"show", "convergence"}), 0) << err;
  EXPECT_EQ(out,
            "WHAT                        VALUE\n"
            "controller converges        yes\n"
            "unicast deletions deferred  yes\n"
            "BUM deletions deferred      no\n"
            "hosts marked for deletion   12\n"
            "reason                      session lost\n"
            "for seconds                 1.500\n");
}

TEST_F(ShowTest, MachinesAreThoseThatAreThere) {
  agent.document =
      json::parse(R"({"output":{"client":{"vxlanControllerClientMode":true,"datapathLearningMode":false,
      "perVni":[5010,5020],"trackers":["Vxlan1"],"mlagBumStatus":true},"clientView":{"convergenceInProgress":false}}})");
  startAgent();
  EXPECT_EQ(run({"show", "machines"}), 0) << err;
  EXPECT_EQ(out,
            "MACHINE                  FOR     STATE\n"
            "VxlanControllerClientSm  -       client mode on, datapath learning off\n"
            "RmxStateSm               -       converged\n"
            "VtiVlanVniMapSm          Vxlan1  following\n"
            "VccPerVniFdbStatusSm     5010    following\n"
            "VccPerVniFdbStatusSm     5020    following\n"
            "RmxMlagBumStatusSm       -       following\n");
}

TEST_F(ShowTest, ProblemsAreNamedAndSorted) {
  agent.answers["problems"] = json::parse(R"([
      {"kind":"vlan-out-of-range","where":"Physical_Port 1","text":"VLAN 5000"},
      {"kind":"bad-locator","where":"row 2","text":"IPv6\nlocator"}])");
  startAgent();
  EXPECT_EQ(run({"show", "problems"}), 0) << err;
  EXPECT_EQ(out,
            "KIND               WHERE            WHAT\n"
            "bad-locator        row 2            IPv6?locator\n"
            "vlan-out-of-range  Physical_Port 1  VLAN 5000\n");
  EXPECT_EQ(run({"show", "problems", "--kind", "bad-locator", "--json"}), 0);
  EXPECT_EQ(json::parse(out).size(), 1U);
}

TEST_F(ShowTest, KernelObjectsAreWantedThereOrDiffer) {
  agent.document = json::parse(R"({"agent":{"kernel":{
      "fdb":{"wanted":100,"there":98,"differing":null,"unknown":2,"compared":null},
      "devices":{"wanted":1,"there":1,"differing":0,"unknown":0,"compared":"2026-01-31T23:59:59Z"}}}})");
  startAgent();
  EXPECT_EQ(run({"show", "kernel"}), 0) << err;
  EXPECT_EQ(out,
            "KIND     WANTED  THERE  DIFFERING  UNKNOWN  COMPARED\n"
            "devices       1      1          0        0  2026-01-31T23:59:59Z\n"
            "fdb         100     98          -        2  -\n");
}

TEST_F(ShowTest, OfAnAgentThatHasNothingIsAHeaderOnly) {
  startAgent();
  for (const char* what : {"floods", "bum", "vni", "vti", "machines", "kernel"}) {
    EXPECT_EQ(run({"show", what}), 0) << what << ": " << err;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
  }
}

TEST_F(ShowTest, WithoutAnAgentSaysSo) {
  EXPECT_EQ(run({"show", "vni"}), 3);
  EXPECT_THAT(err, HasSubstr("vxlanctl: no agent at " + folder + "/control.sock: "));
}

}  // namespace
