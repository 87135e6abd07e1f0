// The adapter below a whole controller: its databases, its central daemon, and the daemon that publishes into
// the switch's database.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "Live.h"

namespace Agent::Vtep::Testing {

using namespace Ovsdb;

namespace {

using nlohmann::json;

// One logical network "blue" with a VTEP port at leaf1's VLAN 10 and a port at the hypervisor hv4.
class ChainTest : public LiveServerTest {
 protected:
  void SetUp() override {
    LiveServerTest::SetUp();
    for (const char* const program :
         {"ovn-northd", "ovn-controller-vtep", "ovn-nbctl", "ovn-sbctl", "ovn-appctl", "vtep-ctl"}) {
      if (programPath(program).empty()) {
        GTEST_SKIP() << program << " is not installed";
      }
    }
    const std::string runFolder = folder / "";
    setenv("OVN_RUNDIR", runFolder.c_str(), 1);
    setenv("OVS_RUNDIR", runFolder.c_str(), 1);
    create("vtep");
    create("nb", "/usr/share/ovn/ovn-nb.ovsschema");
    create("sb", "/usr/share/ovn/ovn-sb.ovsschema");
    for (const char* const name : {"vtep", "nb", "sb"}) {
      servers.push_back(serve(name));
      ASSERT_TRUE(becomes([&] { return access(socket(name).c_str(), F_OK) == 0; })) << name;
    }
    vtep({"add-ps",
          "leaf1",
          "--",
          "set",
          "Physical_Switch",
          "leaf1",
          "tunnel_ips=10.0.0.1",
          "--",
          "add-port",
          "leaf1",
          "t0",
          "--",
          "add-ls",
          "ls10",
          "--",
          "bind-ls",
          "leaf1",
          "t0",
          "10",
          "ls10"});
    northbound({"init"});
    southbound({"init"});
    northd = Process(
        {programPath("ovn-northd"), "--no-chdir", "-vconsole:warn", "--unixctl=" + folder / "northd.ctl",
         "--ovnnb-db=unix:" + socket("nb"), "--ovnsb-db=unix:" + socket("sb")},
        folder / "northd.log");
    northbound({"ls-add",
                "blue",
                "--",
                "lsp-add",
                "blue",
                "bv",
                "--",
                "lsp-set-type",
                "bv",
                "vtep",
                "--",
                "lsp-set-options",
                "bv",
                "vtep-physical-switch=leaf1",
                "vtep-logical-switch=ls10",
                "--",
                "lsp-set-addresses",
                "bv",
                "unknown",
                "--",
                "set",
                "Logical_Switch",
                "blue",
                "other_config:requested-tnl-key=4001"});
    southbound({"chassis-add", "hv4", "vxlan", "10.0.0.4"});
    northbound({"--wait=sb", "lsp-add", "blue", "vm4", "--", "lsp-set-addresses", "vm4",
                "02:00:00:00:10:04 192.168.10.4"});
    southbound({"lsp-bind", "vm4", "hv4"});
    controllerStarts();
  }

  void vtep(std::vector<std::string> words) { control("vtep-ctl", "--db=unix:" + socket("vtep"), words); }
  void northbound(std::vector<std::string> words) {
    control("ovn-nbctl", "--db=unix:" + socket("nb"), words);
  }
  void southbound(std::vector<std::string> words) {
    control("ovn-sbctl", "--db=unix:" + socket("sb"), words);
  }
  void control(const std::string& program, const std::string& database, std::vector<std::string>& words) {
    words.insert(words.begin(), {programPath(program), "--timeout=60", database});
    run(words, folder / "control.log");
  }
  void controllerStarts() {
    controller = Process({programPath("ovn-controller-vtep"), "--no-chdir", "-vconsole:warn",
                          "--vtep-db=unix:" + socket("vtep"), "--ovnsb-db=unix:" + socket("sb")},
                         folder / "controller.log");
  }
  // It takes back what it published before it ends.
  void controllerIsStoppedCleanly() {
    const std::string name = "ovn-controller-vtep." + std::to_string(controller.pid()) + ".ctl";
    run({programPath("ovn-appctl"), "-t", folder / name, "exit"}, folder / "control.log");
    controller.wait();
  }
  bool published() const {
    return document.value("/controller/fdb/4001/macVtepTable/02:00:00:00:10:04/vtepIp"_json_pointer, "") ==
               "10.0.0.4" &&
           document.contains("/vlanVniMap/Vxlan1/10"_json_pointer) && flooded();
  }
  bool flooded() const {
    const json vni = document.value("/controller/fdb/4001"_json_pointer, json::object());
    for (const char* const table : {"macVtepFloodListTable", "macVtepMultiPathTable"}) {
      if (vni.contains(table) && vni[table].contains("00:00:00:00:00:00")) {
        return true;
      }
    }
    return false;
  }

  std::vector<Process> servers;
  Process northd;
  Process controller;
};

}  // namespace

TEST_F(ChainTest, AControllerThatIsStoppedCleanlyAndStartedAgainConvergesAllTheWhile) {
  agentStarts("unix:" + socket("vtep"));
  ASSERT_TRUE(becomes([&] { return published() && !converging(); })) << document;
  const json before = document;
  withdrawnWithoutConvergence = false;

  controllerIsStoppedCleanly();
  ASSERT_TRUE(becomes([&] { return converging() && !published(); })) << document;
  EXPECT_EQ(adapter->status().convergenceCause, "leave");
  EXPECT_EQ(document["vlanVniMap"], before["vlanVniMap"]) << "the last known tunnel keys hold";
  ASSERT_TRUE(becomes([&] { return adapter->status().rows.at("Ucast_Macs_Remote") == 0; }));
  EXPECT_TRUE(converging());

  controllerStarts();
  ASSERT_TRUE(becomes([&] { return published() && !converging(); })) << document;
  EXPECT_EQ(document, before);
  EXPECT_FALSE(withdrawnWithoutConvergence);
}

TEST_F(ChainTest, AControllerThatIsKilledAndStartedAgainWithdrawsNothing) {
  agentStarts("unix:" + socket("vtep"));
  ASSERT_TRUE(becomes([&] { return published() && !converging(); })) << document;
  withdrawn = false;
  controller.kill();
  controllerStarts();
  northbound({"--wait=sb", "lsp-add", "blue", "vm5", "--", "lsp-set-addresses", "vm5",
              "02:00:00:00:10:05 192.168.10.5"});
  southbound({"lsp-bind", "vm5", "hv4"});
  ASSERT_TRUE(becomes([&] { return hosts(4001) == 2; })) << document;
  EXPECT_TRUE(published());
  EXPECT_FALSE(withdrawn);
}

}  // namespace Agent::Vtep::Testing
