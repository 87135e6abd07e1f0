// The agent's side of its control socket.
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/daemon/PatchQueue.h"
#include "agent/daemon/RefusedWrites.h"
#include "agent/kernel/Adapter.h"
#include "agent/state/OutputDocument.h"
#include "agent/state/World.h"
#include "agent/vtep/Adapter.h"
#include "service/control/Backend.h"
#include "service/control/Ownership.h"

namespace Agent {

// The document {"input", "output", "agent"} over a world, patches on its inputs, and the named methods.
// Adapters are shown where there are any.
class AgentService final : public Control::Backend {
 public:
  // How the daemon carries a patch out and what it knows beside the world.
  struct Hooks {
    std::function<void(nlohmann::json patch, PatchQueue::Done done)> carryOut;
    std::function<void(PatchQueue::Step step, PatchQueue::Done done)> inOrder;  // with the patches
    std::function<nlohmann::json()> agentSection;  // what is the daemon's own in "agent"
    std::function<nlohmann::json()> problems;      // an array of kind, where, text
  };

  AgentService(World& world, const std::string& hostTable, Hooks hooks);

  // The adapters, null where there is none; they outlive the service or are taken back.
  void databaseIs(const Vtep::Adapter* database) { database_ = database; }
  void kernelIs(Kernel::Adapter* kernel) { kernel_ = kernel; }
  void refusedWritesAre(const RefusedWrites* refused) { refused_ = refused; }
  Control::Ownership& ownership() { return ownership_; }

  void patch(nlohmann::json&& patch, std::string_view who, Answer answer) override;
  Service::Part part(const std::string& pointer) override;
  void call(const std::string& method, const nlohmann::json& params, CallAnswer answer) override;
  bool callChanges(const std::string& method) const override { return method == "flush"; }
  void onChange(std::function<void()> listener) override { listener_ = std::move(listener); }

  // Tells the listener that the document may have changed.
  void changed() const {
    if (listener_) {
      listener_();
    }
  }

 private:
  Service::Part agentPart();
  Service::Part vnis() const;
  nlohmann::json explain(const nlohmann::json& params);
  void flush(CallAnswer answer);

  World& world_;
  OutputDocument output_;
  Hooks hooks_;
  Control::Ownership ownership_;
  const Vtep::Adapter* database_ = nullptr;
  Kernel::Adapter* kernel_ = nullptr;
  const RefusedWrites* refused_ = nullptr;
  std::function<void()> listener_;
};

// Follows one MAC in one VLAN from the controller to the layer-2 RIB and, with a kernel adapter, to the
// kernel: the answer to the method "explain", {mac, vlan, vni, steps, verdict, published}.
nlohmann::json explainHost(const World& world, const Qnet::EthAddr& mac, Bridging::VlanId vlan,
                           const Vtep::Adapter* database, Kernel::Adapter* kernel,
                           const RefusedWrites* refused);
// The VLANs in which something is known of the MAC, ascending.
std::vector<Bridging::VlanId> vlansKnowing(const World& world, const Qnet::EthAddr& mac);

}  // namespace Agent
