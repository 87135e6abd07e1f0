// The state machines of the VXLAN controller client, and the factories that make them.
//
// Who owns whom, the top machine first. A number in braces: one for each key.
//
//   VxlanControllerClientSm                        the client: modes, marking, sweeping
//     +-- RmxStateSm                               echoes the controller's convergence flag
//     +-- VtiVlanVniMapSm {VTI}                    follows the VLAN-VNI map of a VTI
//     +-- VccPerVniFdbStatusSm {VNI}               remote hosts, multipath sets
//     |     +-- VccMacVtepFloodListTableSm {MAC}   one flood list
//     +-- ReceivedHostTableToL2RibHostInputSm      copies received hosts to the layer-2 RIB
//     +-- RmxMlagBumStatusSm                       mirrors the BUM VTEP lists of the MLAG peer
//           +-- BumVtepListSm {(MAC, VLAN)}        one mirrored list
//
// RmxStateSmWrapper owns a RmxStateSm for programs that need nothing else.
//
// The story of a MAC. VccPerVniFdbStatusSm hears that the controller published it, and writes it into the
// received host table, once for each VTI that maps the VNI; the exporter copies the entry to the layer-2 RIB.
// A withdrawn MAC leaves the same way. While the controller converges it is marked instead and forwarded on;
// when the convergence ends, the client's paced job sweeps what is still marked. A new convergence suspends
// the job. Flood sets have a job of their own.
//
// Names, parameter lists, the order of virtual operations and the texts of traces are a contract with other
// programs: docs/decisions/0012-names-that-are-a-contract.md. docs/glossary.md explains the names.
//
// An attribute is read by the accessor of its name, one that holds a machine or an entity by a pointer. All
// that is public here is exported. Some private steps take `operation`: the signature of the operation that
// they work for, under which they trace. A child points back to its owner, which outlives it.
#pragma once

#include <optional>
#include <vector>

#include "Kel/Children.h"
#include "Kel/Clock.h"
#include "Kel/Dir.h"
#include "Kel/StateMachine.h"
#include "Vxlan/types/Bridging.h"
#include "Vxlan/types/BumStatus.h"
#include "Vxlan/types/Controller.h"
#include "Vxlan/types/ConvergenceStatus.h"
#include "Vxlan/types/FloodSet.h"
#include "Vxlan/types/HostInput.h"
#include "Vxlan/types/Mlag.h"
#include "Vxlan/types/Qnet.h"
#include "Vxlan/types/ReceivedHostTable.h"
#include "Vxlan/types/Recent.h"
#include "Vxlan/types/VlanVniMap.h"
#include "Vxlan/types/Vni.h"
#include "Vxlan/types/VtiStatus.h"

namespace Vxlan {

class BumVtepListSm;
class MacVtepFloodListTableSmBase;
class ReceivedHostTableToL2RibHostInputSm;
class RmxMlagBumStatusSm;
class RmxMlagBumStatusSmBase;
class RmxPerVniFdbStatusSmBase;
class RmxStateSm;
class VxlanControllerClientSm;
class VccMacVtepFloodListTableSm;
class VccPerVniFdbStatusSm;
class VtiVlanVniMapSm;
class VtiVlanVniMapSmBase;

// How the machines take and give the entities. A pointer to const is an input that is only read.
using BumVtepListRef = const Kel::Ptr<const BumVtepList>&;
using ClientViewRef = const Kel::Ptr<VxlanController::RmxStateClientViewV2>&;
using ClockRef = const Kel::Ptr<Kel::Clock>&;
using ConvergenceStatusRef = const Kel::Ptr<VxlanClientConvergenceStatus>&;
using DirRef = const Kel::Ptr<const Kel::Dir>&;
using FloodListRef = const Kel::Ptr<const VxlanController::MacVtepFloodListV2>&;
using HostInputRef = const Kel::Ptr<L2Rib::HostInput>&;
using HwStatusDirRef = const Kel::Ptr<VxlanHwStatusDir>&;
using MlagStatusRef = const Kel::Ptr<const Mlag::Status>&;
using MlagVxlanStatusRef = const Kel::Ptr<const Mlag::VxlanStatus>&;
using ReceivedHostTableRef = const Kel::Ptr<const ReceivedHostTable>&;
using RmxStateRef = const Kel::Ptr<const VxlanController::RmxStateV2>&;
using SourceRef = const Kel::Ptr<L2Rib::SourceDirEntry>&;
using VlanVniMapRef = const Kel::Ptr<const VlanVniMap>&;
using VlanVniMapsRef = const Kel::Ptr<const VlanVniMaps>&;
using VniStatusRef = const Kel::Ptr<const VxlanController::VniFdbStatusV2>&;
using VtiStatusDirRef = const Kel::Ptr<const VtiStatusDir>&;

// The statuses of all VTIs, followed one by one.
template <class DirReactor, class Reactor>
using FollowedVtis = Kel::Followed<Kel::Input<const VtiStatusDir, DirReactor>, VtiStatusDir::VtiStatuses,
                                   &VtiStatusDir::vtiStatus, Reactor>;

// The common part of every controller client: the inputs, the mode flags, the per-VNI machines, the marking
// and the paced deletion of received hosts, and the operations that a concrete client overrides. Alone it
// keeps its attributes and traces.
//
// The two paced jobs, processUnicastDeferredDeletes for hosts and processBumDeferredDeletes for flood sets:
//
//   state       | entered by                                    | left by
//   ------------+-----------------------------------------------+-------------------------------------------
//   idle        | completion, or nothing to remove              | the end of a convergence arms the clock
//   running     | the clock, not converging, something to do *  | completion, or the budget is spent
//   rescheduled | the budget is spent; bookmark set             | the clock: resumes at the bookmark
//   suspended   | a run that finds a new convergence            | its end arms the clock; the bookmark stays
//
//   * hosts: marked ones (a mark alone does not start the job); flood sets: any, in controller mode
class KEL_API VxlanControllerMacAddrSmBase : public Kel::StateMachine {
 public:
  using PerVniSms = Kel::Children<Kel::Table, VniExt, RmxPerVniFdbStatusSmBase>;
  using Trackers = Kel::Children<Kel::OrderedTable, Qnet::IntfId, VtiVlanVniMapSmBase>;

  // Any input may be null: then it has no reactor.
  VxlanControllerMacAddrSmBase(VtiStatusDirRef vtiStatusDir, DirRef controllerStatusBaseDir,
                               ClientViewRef rmxStateClientView, HwStatusDirRef vxlanHwStatusDir,
                               MlagStatusRef mlagStatus, MlagVxlanStatusRef mlagVxlanStatus);
  static Kel::Ptr<VxlanControllerMacAddrSmBase> VxlanControllerMacAddrSmBaseIs(VtiStatusDirRef, DirRef,
                                                                               ClientViewRef, HwStatusDirRef,
                                                                               MlagStatusRef,
                                                                               MlagVxlanStatusRef);
  static const Kel::TypeNode type;
  const Kel::TypeNode& fwkType() const override { return type; }
  ~VxlanControllerMacAddrSmBase() override;

  // In the order of their slots. Those that a client overrides only trace here.
  virtual void deleteBumVtepListTable(Bridging::VlanId vlan);
  virtual void deleteBumVtepListTable();
  virtual void updateControllerClientMode();
  virtual void handleControllerClientMode();
  virtual void handleDatapathLearningMode();
  // One entry of the controller's directory, or all: makes, refreshes or tears down the machine of its VNI.
  virtual void handleControllerVniBaseDir(Kel::Name name);
  virtual void handleControllerVniBaseDir();
  virtual void createRmxPerVniFdbStatusSm(VniExt vni, Kel::Ptr<const VxlanController::VniFdbStatusV2> status);
  virtual void deleteRmxPerVniFdbStatusSm(VniExt vni);
  virtual void handleMlagState();
  virtual void createRmxMlagBumStatusSm();
  virtual void deleteRmxMlagBumStatusSm();
  virtual void processBumDeferredDeletes();
  virtual void handleBumReplicationMode();
  virtual void createVlanVniMapSm(Qnet::IntfId vti);
  virtual void deleteVlanVniMapSm(Qnet::IntfId vti);
  virtual void handleActivatedVti(Qnet::IntfId vti);
  virtual void handleActivatedVti();
  virtual void handleVtiUp(Qnet::IntfId vti);
  virtual void handleVtiDown(Qnet::IntfId vti);
  // The received host table, or none.
  virtual Kel::Ptr<ReceivedHostTable> getHostTable() const;
  // The VTIs that have a VLAN-VNI map, in the order of their names. The list holds until the maps change.
  virtual const std::vector<Qnet::IntfId>& getVtiIterator() const;
  virtual Bridging::VlanIdOrNone vlanForVni(Qnet::IntfId vti, VniExt vni) const;
  virtual VniExtOrNone vniForVlan(Qnet::IntfId vti, Bridging::VlanId vlan) const;
  virtual void setBumDeferredDeletionInProgress(bool inProgress);
  virtual void setUnicastDeferredDeletionInProgress(bool inProgress);
  virtual void handleInitialized();
  virtual void vtiStatusDel(Qnet::IntfId vti);
  virtual void vtiStatusIs(const Kel::Ptr<const VtiStatus>& status);
  virtual void vtiStatusDirIs(VtiStatusDirRef dir);
  virtual void vtiStatusDirDel();
  virtual void controllerStatusBaseDirIs(DirRef dir);
  virtual void controllerStatusBaseDirDel();
  virtual void rmxStateClientViewIs(ClientViewRef view);
  virtual void rmxStateClientViewDel();
  virtual void vxlanHwStatusDirIs(HwStatusDirRef dir);
  virtual void vxlanHwStatusDirDel();
  virtual void mlagStatusIs(MlagStatusRef status);
  virtual void mlagStatusDel();
  // Another clock for a job; binding it counts as its time. Null raises the range error: a job has a clock.
  virtual void unicastDeferredDeleteClockIs(ClockRef clock);
  virtual void bumDeferredDeleteClockIs(ClockRef clock);

  // The client view's flag changed, or was bound: while it is set deletions are held; when it is not, both
  // jobs are scheduled for the next turn. Every notification counts; there is no memory of the edge.
  void handleConvergenceInProgress();

  // Marks the entry of a host for deletion; an absent or marked one stays as it is.
  void deferDeleteReceivedTableEntry(const Bridging::MacVlanPair& key);
  // Deletes the entry of a host now; an absent one is no error.
  void deleteReceivedTableEntry(const Bridging::MacVlanPair& key);
  // One run of the paced deletion: works for maxProcessTime at most.
  void processUnicastDeferredDeletes();
  // Whether a VTEP address is the switch's own: the VTI's, its virtual gateway's, or one of the MLAG pair's.
  bool isVtepIpMine(VniExt vni, Qnet::IpAddr vtepIp, Qnet::IntfId vti) const;

  // Removes, or marks, all remote hosts of a VLAN.
  void deleteRemoteMacFromController(Bridging::VlanId vlan, bool deferDel);
  // Removes what a VNI's machine produced, VTI by VTI; with `deferIfConverging`, marks it while the
  // controller converges.
  void cleanupRmxPerVniFdbStatusSm(VniExt vni, bool deferIfConverging);
  // The same for every VNI that has a machine.
  void cleanupRmxPerVniFdbStatusSm();
  // Refreshes the machine of a VNI, or creates it if the controller publishes the VNI.
  void vxlanControllerScanVniStatus(VniExt vni);

  VtiStatusDirRef vtiStatusDir() const { return vtiStatusDir_.get(); }
  DirRef controllerStatusBaseDir() const { return controllerStatusBaseDir_.get(); }
  ClientViewRef rmxStateClientView() const { return rmxStateClientView_.get(); }
  HwStatusDirRef vxlanHwStatusDir() const { return vxlanHwStatusDir_.get(); }
  MlagStatusRef mlagStatus() const { return mlagStatus_.get(); }
  MlagVxlanStatusRef mlagVxlanStatus() const { return mlagVxlanStatus_.get(); }
  const Kel::Ptr<BumStatus>& kel_BumStatusIn() const { return kel_BumStatusIn_.get(); }
  const PerVniSms& rmxPerVniFdbStatusSm() const { return rmxPerVniFdbStatusSm_; }
  Kel::Ptr<RmxPerVniFdbStatusSmBase> rmxPerVniFdbStatusSm(VniExt vni) const {
    return rmxPerVniFdbStatusSm_(vni);
  }
  // Enters a per-VNI machine under its VNI; null raises the range error.
  void rmxPerVniFdbStatusSmIs(const Kel::Ptr<RmxPerVniFdbStatusSmBase>& sm);
  void rmxPerVniFdbStatusSmDel(VniExt vni) { rmxPerVniFdbStatusSm_.del(vni); }
  void rmxPerVniFdbStatusSmDelAll() { rmxPerVniFdbStatusSm_.delAll(); }
  const Trackers& vlanVniMapSm() const { return vlanVniMapSm_; }
  Kel::Ptr<VtiVlanVniMapSmBase> vlanVniMapSm(const Qnet::IntfId& vti) const { return vlanVniMapSm_(vti); }
  // Enters a tracker under its VTI; null raises the range error.
  void vlanVniMapSmIs(const Kel::Ptr<VtiVlanVniMapSmBase>& sm);
  void vlanVniMapSmDel(const Qnet::IntfId& vti) { vlanVniMapSm_.del(vti); }
  void vlanVniMapSmDelAll() { vlanVniMapSm_.delAll(); }
  const Kel::Ptr<RmxMlagBumStatusSmBase>& rmxMlagBumStatusSm() const { return rmxMlagBumStatusSm_.get(); }
  void rmxMlagBumStatusSmIs(const Kel::Ptr<RmxMlagBumStatusSmBase>& sm) { rmxMlagBumStatusSm_.is(sm); }
  void rmxMlagBumStatusSmDel() { rmxMlagBumStatusSm_.del(); }

  // The time budget of one slice of deferred work, in seconds; 0.01 to begin with.
  double maxProcessTime() const { return maxProcessTime_; }
  void maxProcessTimeIs(double seconds) { maxProcessTime_ = seconds; }
  const Bridging::MacVlanPair& unicastDeferredDeleteBookmark() const {
    return unicastDeferredDeleteBookmark_;
  }
  ClockRef unicastDeferredDeleteClock() const { return unicastDeferredDeleteClock_.get(); }
  bool bumDeferredDeleteBookmarkValid() const { return bumDeferredDeleteBookmarkValid_; }
  ClockRef bumDeferredDeleteClock() const { return bumDeferredDeleteClock_.get(); }
  bool vxlanControllerClientMode() const { return vxlanControllerClientMode_; }
  bool datapathLearningMode() const { return datapathLearningMode_; }
  bool initialized() const { return initialized_; }

  // Whether the controller is converging, as the client view has it; false without a view.
  bool converging() const;

 protected:
  void initializedIs(bool initialized) { initialized_ = initialized; }
  void vxlanControllerClientModeIs(bool mode) { vxlanControllerClientMode_ = mode; }
  void datapathLearningModeIs(bool learning) { datapathLearningMode_ = learning; }
  void bumDeferredDeleteBookmarkValidIs(bool valid) { bumDeferredDeleteBookmarkValid_ = valid; }
  // The replication mode of the hardware, none without a BUM status.
  BumReplicationMode bumReplicationMode() const;

 private:
  struct KelVtiStatusDir;
  struct KelControllerStatusBaseDir;
  struct KelRmxStateClientView;
  struct KelVxlanHwStatusDir;
  struct KelKel_BumStatusIn;
  struct KelMlagStatus;
  struct KelUnicastDeferredDeleteClock;
  struct KelBumDeferredDeleteClock;
  struct KelVtiStatus;

  friend class VxlanControllerClientSm;
  friend class RmxPerVniFdbStatusSmBase;
  friend class VtiVlanVniMapSmBase;

  const VtiStatus* statusOf(const Qnet::IntfId& vti) const;
  void vtiStatusReconcile();
  void kel_BumStatusInRebind();
  void addVni(const Kel::Name& name, const char* operation);
  void removeVni(VniExt vni, const char* operation);
  void finishUnicastDeferredDeletes();

  Kel::Input<const VtiStatusDir, KelVtiStatusDir> vtiStatusDir_{*this, "vtiStatusDir"};
  Kel::Input<const Kel::Dir, KelControllerStatusBaseDir> controllerStatusBaseDir_{*this,
                                                                                  "controllerStatusBaseDir"};
  Kel::Input<VxlanController::RmxStateClientViewV2, KelRmxStateClientView> rmxStateClientView_{
      *this, "rmxStateClientView"};
  PerVniSms rmxPerVniFdbStatusSm_{*this, "rmxPerVniFdbStatusSm", Kel::Owns::Alias};
  Kel::Input<VxlanHwStatusDir, KelVxlanHwStatusDir> vxlanHwStatusDir_{*this, "vxlanHwStatusDir"};
  Kel::Input<const Mlag::Status, KelMlagStatus> mlagStatus_{*this, "mlagStatus"};
  Kel::Held<const Mlag::VxlanStatus> mlagVxlanStatus_{*this, "mlagVxlanStatus"};
  Kel::Child<RmxMlagBumStatusSmBase> rmxMlagBumStatusSm_{*this, "rmxMlagBumStatusSm", Kel::Owns::Alias};
  Kel::Own<double> maxProcessTime_{*this, "maxProcessTime", 0.01};
  Kel::Own<Bridging::MacVlanPair> unicastDeferredDeleteBookmark_{*this, "unicastDeferredDeleteBookmark"};
  Kel::Input<Kel::Clock, KelUnicastDeferredDeleteClock> unicastDeferredDeleteClock_{
      *this, "unicastDeferredDeleteClock"};
  Kel::Own<bool> bumDeferredDeleteBookmarkValid_{*this, "bumDeferredDeleteBookmarkValid", false};
  Kel::Input<Kel::Clock, KelBumDeferredDeleteClock> bumDeferredDeleteClock_{*this, "bumDeferredDeleteClock"};
  Trackers vlanVniMapSm_{*this, "vlanVniMapSm", Kel::Owns::Alias};
  FollowedVtis<KelVtiStatusDir, KelVtiStatus> vtiStatus_{*this, "vtiStatus", vtiStatusDir_};
  Kel::Own<bool> vxlanControllerClientMode_{*this, "vxlanControllerClientMode", false};
  Kel::Own<bool> datapathLearningMode_{*this, "datapathLearningMode", true};
  Kel::Own<bool> initialized_{*this, "initialized", false};
  Kel::Input<BumStatus, KelKel_BumStatusIn> kel_BumStatusIn_{*this, "kel_BumStatusIn"};

  // The client that this is, where it is one: on the road of a host it is asked directly.
  const VxlanControllerClientSm* client_ = nullptr;
  // The VNIs whose machines were entered last, for the trackers.
  using EnteredVnis = Recent<VniExt, 256>;
  EnteredVnis enteredVnis_;
};

// The top state machine, and the only one that outside code creates: the client of the VXLAN controller. It
// decides from the VTIs whether the switch is a controller client, creates and deletes every other machine,
// and removes stale state after a convergence in two paced jobs. It is live as soon as its factory returns.
//
// The client mode is on while any VTI asks for it; data-path learning counts as on only while every VTI has
// it. With the mode off all per-VNI state is torn down. The MLAG BUM status machine exists while the mode is
// on and MLAG is active.
class KEL_API VxlanControllerClientSm final : public VxlanControllerMacAddrSmBase {
 public:
  using TrackerShadow = Kel::Children<Kel::OrderedTable, Qnet::IntfId, VtiVlanVniMapSm>;
  using PerVniShadow = Kel::Children<Kel::Table, VniExt, VccPerVniFdbStatusSm>;

  VxlanControllerClientSm(VtiStatusDirRef vtiStatusDir, DirRef controllerStatusBaseDir,
                          ClientViewRef rmxStateClientView, HwStatusDirRef vxlanHwStatusDir,
                          MlagStatusRef mlagStatus, MlagVxlanStatusRef mlagVxlanStatus,
                          DirRef rmxStateBaseDir, VlanVniMapsRef vlanVniMaps, SourceRef rmxSde,
                          HostInputRef l2RibRmxInput, ConvergenceStatusRef rmxConvergenceStatus);
  static Kel::Ptr<VxlanControllerClientSm> VxlanControllerClientSmIs(VtiStatusDirRef, DirRef, ClientViewRef,
                                                                     HwStatusDirRef, MlagStatusRef,
                                                                     MlagVxlanStatusRef, DirRef,
                                                                     VlanVniMapsRef, SourceRef, HostInputRef,
                                                                     ConvergenceStatusRef);
  static const Kel::TypeNode type;
  const Kel::TypeNode& fwkType() const override { return type; }
  ~VxlanControllerClientSm() override;

  void deleteBumVtepListTable(Bridging::VlanId vlan) override;
  void deleteBumVtepListTable() override;
  void updateControllerClientMode() override;
  void handleControllerClientMode() override;
  void handleDatapathLearningMode() override;
  void createRmxPerVniFdbStatusSm(VniExt vni,
                                  Kel::Ptr<const VxlanController::VniFdbStatusV2> status) override;
  void deleteRmxPerVniFdbStatusSm(VniExt vni) override;
  void createRmxMlagBumStatusSm() override;
  void deleteRmxMlagBumStatusSm() override;
  void processBumDeferredDeletes() override;
  void handleBumReplicationMode() override;
  void createVlanVniMapSm(Qnet::IntfId vti) override;
  void deleteVlanVniMapSm(Qnet::IntfId vti) override;
  Kel::Ptr<ReceivedHostTable> getHostTable() const override;
  const std::vector<Qnet::IntfId>& getVtiIterator() const override;
  Bridging::VlanIdOrNone vlanForVni(Qnet::IntfId vti, VniExt vni) const override;
  VniExtOrNone vniForVlan(Qnet::IntfId vti, Bridging::VlanId vlan) const override;
  void setBumDeferredDeletionInProgress(bool inProgress) override;
  void setUnicastDeferredDeletionInProgress(bool inProgress) override;
  void handleInitialized() override;

  // One entry of the controller's state directory, or all: the echo of its convergence flag.
  void handleRmxStateBaseDir(Kel::Name name);
  void handleRmxStateBaseDir();
  // A VTI's VLAN-VNI map came or went, or those of all VTIs did.
  void handleVlanVniMapVti(Qnet::IntfId vti);
  void handleVlanVniMapVti();

  DirRef rmxStateBaseDir() const { return rmxStateBaseDir_.get(); }
  void rmxStateBaseDirIs(DirRef dir);
  void rmxStateBaseDirDel();
  void vlanVniMapsIs(VlanVniMapsRef maps);
  void vlanVniMapsDel();
  VlanVniMapsRef vlanVniMaps() const { return vlanVniMaps_.get(); }
  SourceRef rmxSde() const { return rmxSde_.get(); }
  HostInputRef l2RibRmxInput() const { return l2RibRmxInput_.get(); }
  ConvergenceStatusRef rmxConvergenceStatus() const { return rmxConvergenceStatus_.get(); }
  const Kel::Ptr<RmxStateSm>& rmxStateSm() const { return rmxStateSm_.get(); }
  void rmxStateSmIs(RmxStateRef rmxState, ClientViewRef rmxStateClientView);
  void rmxStateSmDel();
  // The received host table; `hostTableIs` makes it under this name, once.
  const Kel::Ptr<ReceivedHostTable>& hostTable() const { return hostTable_.get(); }
  Kel::Ptr<ReceivedHostTable> hostTableIs(const Kel::Name& name);
  // Copies that table into l2RibRmxInput.
  const Kel::Ptr<ReceivedHostTableToL2RibHostInputSm>& receivedHostTableToL2RibHostInputSm() const {
    return receivedHostTableToL2RibHostInputSm_.get();
  }
  Bridging::VlanId bumDeferredDeleteBookmark() const { return bumDeferredDeleteBookmark_; }

  // The children by their concrete classes. Each is also entered in the collection of its base class.
  const TrackerShadow& vlanVniMapSmShadow() const { return vlanVniMapSmShadow_; }
  Kel::Ptr<VtiVlanVniMapSm> vlanVniMapSmShadow(const Qnet::IntfId& vti) const {
    return vlanVniMapSmShadow_(vti);
  }
  Kel::Ptr<VtiVlanVniMapSm> vlanVniMapSmShadowIs(Qnet::IntfId vti, VxlanControllerMacAddrSmBase* owner,
                                                 VlanVniMapRef map);
  void vlanVniMapSmShadowDel(const Qnet::IntfId& vti) { vlanVniMapSmShadow_.del(vti); }
  void vlanVniMapSmShadowDelAll() { vlanVniMapSmShadow_.delAll(); }
  const PerVniShadow& vccPerVniFdbStatusSmShadow() const { return vccPerVniFdbStatusSmShadow_; }
  Kel::Ptr<VccPerVniFdbStatusSm> vccPerVniFdbStatusSmShadow(VniExt vni) const {
    return vccPerVniFdbStatusSmShadow_(vni);
  }
  Kel::Ptr<VccPerVniFdbStatusSm> vccPerVniFdbStatusSmShadowIs(VniExt vni, VniStatusRef status,
                                                              VtiStatusDirRef dir, HwStatusDirRef hwStatusDir,
                                                              VxlanControllerMacAddrSmBase* owner,
                                                              SourceRef sde);
  void vccPerVniFdbStatusSmShadowDel(VniExt vni) { vccPerVniFdbStatusSmShadow_.del(vni); }
  void vccPerVniFdbStatusSmShadowDelAll() { vccPerVniFdbStatusSmShadow_.delAll(); }
  const Kel::Ptr<RmxMlagBumStatusSm>& rmxMlagBumStatusSmShadow() const {
    return rmxMlagBumStatusSmShadow_.get();
  }
  Kel::Ptr<RmxMlagBumStatusSm> rmxMlagBumStatusSmShadowIs(MlagVxlanStatusRef status,
                                                          HwStatusDirRef hwStatusDir, VlanVniMapsRef maps);
  void rmxMlagBumStatusSmShadowDel() { rmxMlagBumStatusSmShadow_.del(); }

 private:
  friend class RmxPerVniFdbStatusSmBase;
  friend class VxlanControllerMacAddrSmBase;

  struct KelRmxStateBaseDir;
  struct KelVlanVniMaps;

  // A VTI of getVtiIterator, with its map and its status, if it has one.
  struct VtiView {
    Qnet::IntfId intf;
    const VlanVniMap* map;
    const VtiStatus* status;
  };
  // Resolved once, for as long as both directories stay as they are.
  const std::vector<VtiView>& vtiViews() const {
    const std::uint64_t maps = vlanVniMaps_ ? vlanVniMaps_->vlanVniMap().version() : 0;
    const std::uint64_t statuses = vtiStatusDir() ? vtiStatusDir()->vtiStatus().version() : 0;
    if (maps != viewMaps_ || statuses != viewStatuses_) [[unlikely]] {
      resolveVtis(maps, statuses);
    }
    return views_;
  }
  void resolveVtis(std::uint64_t maps, std::uint64_t statuses) const;

  void deleteRemoteMacsOfMappedVlans(const char* operation);
  L2Rib::SourceDirEntry::VlanFloodSets::Iterator bumStartPosition(const char* operation) const;
  std::size_t pruneVlanFloodSet(Bridging::VlanId vlan, const char* operation);
  Kel::Ptr<RmxPerVniFdbStatusSmBase> machineOfVlan(Bridging::VlanId vlan) const;
  void finishBumDeferredDeletes(std::size_t deleted, const char* operation);

  Kel::Input<const Kel::Dir, KelRmxStateBaseDir> rmxStateBaseDir_{*this, "rmxStateBaseDir"};
  Kel::Input<const VlanVniMaps, KelVlanVniMaps> vlanVniMaps_{*this, "vlanVniMaps"};
  Kel::Held<L2Rib::SourceDirEntry> rmxSde_;
  Kel::Held<L2Rib::HostInput> l2RibRmxInput_;
  Kel::Held<VxlanClientConvergenceStatus> rmxConvergenceStatus_;
  Kel::Child<RmxStateSm> rmxStateSm_{*this, "rmxStateSm"};
  TrackerShadow vlanVniMapSmShadow_{*this, "vlanVniMapSmShadow"};
  PerVniShadow vccPerVniFdbStatusSmShadow_{*this, "vccPerVniFdbStatusSmShadow"};
  Kel::Held<ReceivedHostTable> hostTable_{*this, "hostTable"};
  Kel::Child<ReceivedHostTableToL2RibHostInputSm> receivedHostTableToL2RibHostInputSm_{
      *this, "receivedHostTableToL2RibHostInputSm"};
  Kel::Own<Bridging::VlanId> bumDeferredDeleteBookmark_{*this, "bumDeferredDeleteBookmark",
                                                        Bridging::VlanId(1U)};
  Kel::Child<RmxMlagBumStatusSm> rmxMlagBumStatusSmShadow_{*this, "rmxMlagBumStatusSmShadow"};

  // The list of getVtiIterator, rebuilt when the maps have changed.
  mutable std::vector<Qnet::IntfId> vtis_;
  mutable const VlanVniMaps* vtisOf_ = nullptr;
  mutable std::uint64_t vtisVersion_ = 0;

  // What vtiViews returns, and the versions of the maps and the statuses that it was made of.
  mutable std::vector<VtiView> views_;
  mutable std::uint64_t viewMaps_ = 0;
  mutable std::uint64_t viewStatuses_ = 0;
};

// The tracker of one VTI's VLAN-VNI map, as its owner knows it: a VTI and its owner.
class KEL_API VtiVlanVniMapSmBase : public Kel::StateMachine {
 public:
  VtiVlanVniMapSmBase(const Qnet::IntfId& vtiIntfId, VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm);
  static const Kel::TypeNode type;
  const Kel::TypeNode& fwkType() const override { return type; }
  ~VtiVlanVniMapSmBase() override;

  // The VNI that the VLAN is mapped to on this VTI, or none; none here.
  virtual VniExtOrNone vniForVlan(Bridging::VlanId vlan) const;
  // The VLAN that is mapped to the VNI on this VTI, or none; none here.
  virtual Bridging::VlanIdOrNone vlanForVni(VniExt vni) const;
  virtual void handleInitialized();
  virtual void kelDoZombieReactors(bool zombie) { StateMachine::kelDoZombieReactors(zombie); }

  // Acts on a completed update of a VLAN's entry: deletes the machines of VNIs that lost their VLAN, creates
  // or refreshes the machine of the VLAN's VNI. Does nothing unless the switch is a controller client.
  void rmxProcessVniVlanMapUpdateComplete(Bridging::VlanId vlan, Qnet::IntfId vti);

  const Qnet::IntfId& vtiIntfId() const { return vtiIntfId_; }
  VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm() const { return vxlanControllerMacAddrSm_; }
  bool initialized() const { return initialized_; }

 protected:
  VxlanControllerMacAddrSmBase& owner() const { return *vxlanControllerMacAddrSm_; }
  void initializedIs(bool initialized) { initialized_ = initialized; }
  // The map that vlanForVni reads, from now on; null where the VNIs of which it is asked are to be all.
  void mapIs(const VlanVniMap* map) {
    map_ = map;
    swept_ = false;
  }

 private:
  std::vector<VniExt> unmappedVnis() const;
  void sweepUnmapped(const char* operation);

  // Every machine was found mapped when so many VNIs had lost their VLAN and so many machines had been
  // entered: only those that came since can be unmapped.
  const VlanVniMap* map_ = nullptr;
  bool swept_ = false;
  std::uint64_t seenLost_ = 0;
  std::uint64_t seenEntered_ = 0;
  Kel::Own<Qnet::IntfId> vtiIntfId_;
  VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm_;  // outlives the tracker
  Kel::Own<bool> initialized_{*this, "initialized", false};
};

// The tracker of one VTI's VLAN-VNI map. It exists while the VTI has a map. Each time the map signals that
// the entry of a VLAN is complete, it brings the state of the controller in line: a VLAN that lost its VNI
// loses its remote MACs at once, one that has a VNI gets that VNI's machine created or refreshed. It is inert
// until its owner is initialized.
class KEL_API VtiVlanVniMapSm final : public VtiVlanVniMapSmBase {
 public:
  static constexpr Kel::Parameters<2> parameterNames{"_vxlanControllerMacAddrSm", "_vlanVniMap"};

  VtiVlanVniMapSm(const Qnet::IntfId& vtiIntfId, VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm,
                  VlanVniMapRef vlanVniMap);
  static Kel::Ptr<VtiVlanVniMapSm> VtiVlanVniMapSmIs(const Qnet::IntfId&, VxlanControllerMacAddrSmBase*,
                                                     VlanVniMapRef);
  static const Kel::TypeNode type;
  const Kel::TypeNode& fwkType() const override { return type; }
  ~VtiVlanVniMapSm() override;

  VniExtOrNone vniForVlan(Bridging::VlanId vlan) const override;
  Bridging::VlanIdOrNone vlanForVni(VniExt vni) const override;
  void handleInitialized() override;
  void handleVlanVniMapUpdate(Bridging::VlanId vlan);

  VlanVniMapRef vlanVniMap() const { return vlanVniMap_.get(); }
  // Follows another map from now on, or none.
  void vlanVniMapIs(VlanVniMapRef map) {
    mapIs(map.get());
    vlanVniMap_.is(map);
  }
  void vlanVniMapDel() { vlanVniMapIs(nullptr); }
  auto parameters() const { return Kel::rawValues(&owner(), vlanVniMap()); }

 private:
  struct KelVlanVniMap final : Kel::Reacts<VlanVniMap, VtiVlanVniMapSm> {
    using Reacts::Reacts;
    void onNotifyingVlan(Bridging::VlanId vlan) override { owner().handleVlanVniMapUpdate(vlan); }
  };
  Kel::Input<const VlanVniMap, KelVlanVniMap> vlanVniMap_{*this, "vlanVniMap"};
};

// The machine of one VNI: turns each remote MAC that the controller publishes into an entry of the received
// host table for every VTI that maps the VNI to a VLAN, and removes, or while the controller converges marks,
// the entries of MACs that are withdrawn. A MAC behind one of the switch's own addresses is never added, and
// a stale entry of it goes at once. It owns a machine for each flood list. This class has the inputs and the
// hosts; flood lists and multipath destinations are the derived class's.
class KEL_API RmxPerVniFdbStatusSmBase : public Kel::StateMachine {
 public:
  using FloodListSms = Kel::Children<Kel::OrderedTable, Qnet::EthAddr, MacVtepFloodListTableSmBase>;

  RmxPerVniFdbStatusSmBase(const VniExt& vni, VniStatusRef rmxVniFdbStatusV2, VtiStatusDirRef vtiStatusDir,
                           HwStatusDirRef vxlanHwStatusDir,
                           VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm);
  static const Kel::TypeNode type;

  // In the order of their slots.
  void hasNotificationActiveIs(bool active) override;
  const Kel::TypeNode& fwkType() const override { return type; }
  ~RmxPerVniFdbStatusSmBase() override;
  virtual void handleMacVtepMultiPathTable(Qnet::EthAddr mac);
  virtual void createMacVtepFloodListTableSm(Qnet::EthAddr mac);
  virtual void deleteMacVtepFloodListTableSm(Qnet::EthAddr mac);
  virtual void vtiStatusDel(Qnet::IntfId vti);
  virtual void vtiStatusDel(VtiStatusDir::VtiStatuses::Iterator at);
  virtual void vtiStatusNotify(Qnet::IntfId vti);
  virtual void vtiStatusIs(const Kel::Ptr<const VtiStatus>& status);
  virtual void kelDoZombieReactors(bool zombie) { StateMachine::kelDoZombieReactors(zombie); }
  virtual void rmxVniFdbStatusV2Del();
  virtual void rmxVniFdbStatusV2Is(VniStatusRef status);
  virtual void vtiStatusDirDel();
  virtual void vtiStatusDirIs(VtiStatusDirRef dir);
  virtual void vxlanHwStatusDirDel();
  virtual void vxlanHwStatusDirIs(HwStatusDirRef dir);

  // A full evaluation, the first or a later one: hosts, then multipath entries, then flood lists.
  void handleInitialized();
  // Evaluates one MAC of the controller's host table, or every MAC that is in it; the latter never deletes.
  void handleRmxHostTable(Qnet::EthAddr mac);
  void handleRmxHostTable();
  void handleDgwVtepAddr();
  void handleMacVtepMultiPathTable();
  void handleMacVtepFloodListTable(Qnet::EthAddr mac);
  void handleMacVtepFloodListTable();
  // Whether the controller drives BUM flooding for this VNI.
  bool checkBumStatus() const;

  const VniExt& vni() const { return vni_; }
  VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm() const { return vxlanControllerMacAddrSm_; }
  bool initialized() const { return initialized_; }
  void initializedIs(bool initialized) {
    initialized_ = initialized;
    road_.initialized = initialized;
  }
  VniStatusRef rmxVniFdbStatusV2() const { return rmxVniFdbStatusV2_.get(); }
  VtiStatusDirRef vtiStatusDir() const { return vtiStatusDir_.get(); }
  HwStatusDirRef vxlanHwStatusDir() const { return vxlanHwStatusDir_.get(); }
  const FloodListSms& macVtepFloodListTableSm() const { return macVtepFloodListTableSm_; }
  Kel::Ptr<MacVtepFloodListTableSmBase> macVtepFloodListTableSm(const Qnet::EthAddr& mac) const {
    return macVtepFloodListTableSm_(mac);
  }
  // Enters a flood list machine under its MAC; null raises the range error.
  void macVtepFloodListTableSmIs(const Kel::Ptr<MacVtepFloodListTableSmBase>& sm);
  void macVtepFloodListTableSmDel(const Qnet::EthAddr& mac) { macVtepFloodListTableSm_.del(mac); }
  void macVtepFloodListTableSmDelAll() { macVtepFloodListTableSm_.delAll(); }

  // The VTIs, in the order in which they are evaluated.
  const std::vector<Qnet::IntfId>& vtis() const;
  // The VLAN of this VTI in which flood state is written, or none if it does not map the VNI. None ends the
  // operation that asks, whose signature this is: flood state is not written past such a VTI.
  std::optional<Bridging::VlanId> floodVlan(const Qnet::IntfId& vti, const char* operation) const;
  // Whether the controller is converging, as the client view has it.
  bool converging() const;

 protected:
  VxlanControllerMacAddrSmBase& owner() const { return *vxlanControllerMacAddrSm_; }

 private:
  struct KelRmxVniFdbStatusV2;
  struct KelVtiStatusDir;
  struct KelVxlanHwStatusDir;
  struct KelVtiStatus;

  // The VLAN of the VNI on a VTI, as of a version of that VTI's map.
  struct MappedVlan {
    std::uint64_t version = UINT64_MAX;
    Bridging::VlanIdOrNone vlan;
  };
  // What every host of the VNI asks the machine for, in one cache line.
  struct alignas(64) Road {
    VxlanControllerMacAddrSmBase* owner = nullptr;
    const VxlanController::VniFdbStatusV2* status = nullptr;
    MappedVlan first;  // of the first VTI
    bool initialized = false;
  };

  void statusIs(VniStatusRef status);
  Bridging::VlanIdOrNone vlanOn(const VlanVniMap& map, std::size_t vti);
  void evaluate(ReceivedHostTable& table, Qnet::EthAddr mac, const VxlanController::MacVtepV2& host,
                const Qnet::IntfId& vti, Bridging::VlanIdOrNone vlan, const char* operation);
  void removeLocal(ReceivedHostTable& table, const Bridging::MacVlanPair& key, Qnet::IpAddr vtepIp,
                   const char* operation);
  void addRemote(ReceivedHostTable& table, const Bridging::MacVlanPair& key, const Qnet::IntfId& vti,
                 const VxlanController::MacVtepV2& host, const char* operation);
  void withdraw(ReceivedHostTable& table, const Bridging::MacVlanPair& key, const char* operation);

  Road road_;
  std::vector<MappedVlan> others_;  // of the VTIs behind the first
  Kel::Own<VniExt> vni_;
  Kel::Input<const VxlanController::VniFdbStatusV2, KelRmxVniFdbStatusV2> rmxVniFdbStatusV2_{
      *this, "rmxVniFdbStatusV2"};
  Kel::Input<const VtiStatusDir, KelVtiStatusDir> vtiStatusDir_{*this, "vtiStatusDir"};
  Kel::Input<VxlanHwStatusDir, KelVxlanHwStatusDir> vxlanHwStatusDir_{*this, "vxlanHwStatusDir"};
  VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm_;  // outlives it
  FollowedVtis<KelVtiStatusDir, KelVtiStatus> vtiStatus_{*this, "vtiStatus", vtiStatusDir_};
  FloodListSms macVtepFloodListTableSm_{*this, "macVtepFloodListTableSm", Kel::Owns::Alias};
  Kel::Own<bool> initialized_{*this, "initialized", false};
};

// The machine of one VNI that runs: adds the flood lists and the multipath entries, which become flood sets
// of the L2 RIB. It is live and fully synchronised as soon as it is built.
class KEL_API VccPerVniFdbStatusSm final : public RmxPerVniFdbStatusSmBase {
 public:
  using VccFloodListSms = Kel::Children<Kel::OrderedTable, Qnet::EthAddr, VccMacVtepFloodListTableSm>;

  static constexpr Kel::Parameters<5> parameterNames{
      "_rmxVniFdbStatusV2", "_vtiStatusDir", "_vxlanHwStatusDir", "_vxlanControllerMacAddrSm", "_rmxSde"};

  VccPerVniFdbStatusSm(const VniExt& vni, VniStatusRef rmxVniFdbStatusV2, VtiStatusDirRef vtiStatusDir,
                       HwStatusDirRef vxlanHwStatusDir,
                       VxlanControllerMacAddrSmBase* vxlanControllerMacAddrSm, SourceRef rmxSde);
  static Kel::Ptr<VccPerVniFdbStatusSm> VccPerVniFdbStatusSmIs(const VniExt&, VniStatusRef, VtiStatusDirRef,
                                                               HwStatusDirRef, VxlanControllerMacAddrSmBase*,
                                                               SourceRef);
  static const Kel::TypeNode type;
  void hasNotificationActiveIs(bool active) override;
  const Kel::TypeNode& fwkType() const override { return type; }
  ~VccPerVniFdbStatusSm() override;

  using RmxPerVniFdbStatusSmBase::handleMacVtepMultiPathTable;
  void handleMacVtepMultiPathTable(Qnet::EthAddr mac) override;
  void createMacVtepFloodListTableSm(Qnet::EthAddr mac) override;
  void deleteMacVtepFloodListTableSm(Qnet::EthAddr mac) override;
  void kelDoZombieReactors(bool zombie) override { RmxPerVniFdbStatusSmBase::kelDoZombieReactors(zombie); }

  const VccFloodListSms& vccMacVtepFloodListTableSm() const { return vccMacVtepFloodListTableSm_; }
  // The flood list machine of a MAC, or none. Each is also entered in macVtepFloodListTableSm.
  Kel::Ptr<VccMacVtepFloodListTableSm> vccMacVtepFloodListTableSm(const Qnet::EthAddr& mac) const {
    return vccMacVtepFloodListTableSm_(mac);
  }
  // The machine that is there if it follows this list, else a new one in its place, which takes over the
  // flood sets of the old one. Another owner or source entry raises the name-in-use error.
  Kel::Ptr<VccMacVtepFloodListTableSm> vccMacVtepFloodListTableSmIs(
      const Qnet::EthAddr& mac, const Kel::Ptr<const VxlanController::MacVtepFloodListV2>& list,
      RmxPerVniFdbStatusSmBase* owner, const Kel::Ptr<L2Rib::SourceDirEntry>& sde);
  void vccMacVtepFloodListTableSmDel(const Qnet::EthAddr& mac) { vccMacVtepFloodListTableSm_.del(mac); }
  void vccMacVtepFloodListTableSmDelAll() { vccMacVtepFloodListTableSm_.delAll(); }

  SourceRef rmxSde() const { return rmxSde_.get(); }
  auto parameters() const {
    return Kel::rawValues(rmxVniFdbStatusV2(), vtiStatusDir(), vxlanHwStatusDir(), &owner(), rmxSde());
  }

 private:
  void writeMultiPath(Bridging::VlanId vlan, const VxlanController::MacVtepMultiPathV2& entry,
                      const char* operation);
  void removeMultiPath(Bridging::VlanId vlan, const Qnet::EthAddr& mac, const char* operation);

  Kel::Held<L2Rib::SourceDirEntry> rmxSde_;
  VccFloodListSms vccMacVtepFloodListTableSm_{*this, "vccMacVtepFloodListTableSm"};
};

// The state of one flood list, as the machine of its VNI knows it, and the gating that every operation
// passes: flood sets are written only while the controller drives BUM replication, a MAC with multipath
// destinations is left alone, and the first VTI that does not map the VNI ends the operation. It writes
// nothing itself: getting past the gating here is a fatal assertion.
class KEL_API MacVtepFloodListTableSmBase : public Kel::StateMachine {
 public:
  MacVtepFloodListTableSmBase(const Qnet::EthAddr& macAddr, FloodListRef macVtepFloodListTable,
                              RmxPerVniFdbStatusSmBase* rmxPerVniFdbStatusSm);
  static const Kel::TypeNode type;
  void hasNotificationActiveIs(bool active) override;
  const Kel::TypeNode& fwkType() const override { return type; }
  ~MacVtepFloodListTableSmBase() override;

  virtual void handleVtepIpFloodList(Qnet::IpAddr ip);
  virtual void cleanup();
  virtual void handleInitialized();
  virtual void kelDoZombieReactors(bool zombie) { StateMachine::kelDoZombieReactors(zombie); }
  virtual void macVtepFloodListTableDel();
  virtual void macVtepFloodListTableIs(FloodListRef list);

  // The list as a whole changed: evaluates every address.
  void handleVtepIpFloodList();

  const Qnet::EthAddr& macAddr() const { return macAddr_; }
  FloodListRef macVtepFloodListTable() const { return macVtepFloodListTable_.get(); }
  RmxPerVniFdbStatusSmBase* rmxPerVniFdbStatusSm() const { return rmxPerVniFdbStatusSm_; }
  bool initialized() const { return initialized_; }

 protected:
  // Whether flood sets of this MAC are to be written now: the controller drives BUM replication and there is
  // no multipath entry.
  bool mayWrite(const char* operation) const;
  RmxPerVniFdbStatusSmBase& owner() const { return *rmxPerVniFdbStatusSm_; }
  void initializedIs(bool initialized) { initialized_ = initialized; }

 private:
  struct KelMacVtepFloodListTable;
  void actInBase(const char* operation) const;

  Kel::Own<Qnet::EthAddr> macAddr_;
  Kel::Input<const VxlanController::MacVtepFloodListV2, KelMacVtepFloodListTable> macVtepFloodListTable_{
      *this, "macVtepFloodListTable"};
  RmxPerVniFdbStatusSmBase* rmxPerVniFdbStatusSm_;  // outlives it
  Kel::Own<bool> initialized_{*this, "initialized", false};
};

// Mirrors the flood list that the controller publishes for one MAC of one VNI into the L2 RIB: into the flood
// set of that MAC, type "send to all", in every VLAN to which a VTI maps the VNI. While the controller
// converges a full evaluation removes nothing; a change of a single address acts at once.
class KEL_API VccMacVtepFloodListTableSm final : public MacVtepFloodListTableSmBase {
 public:
  static constexpr Kel::Parameters<3> parameterNames{"_macVtepFloodListTable", "_rmxPerVniFdbStatusSm",
                                                     "_rmxSde"};

  VccMacVtepFloodListTableSm(const Qnet::EthAddr& macAddr, FloodListRef macVtepFloodListTable,
                             RmxPerVniFdbStatusSmBase* rmxPerVniFdbStatusSm, SourceRef rmxSde);
  static Kel::Ptr<VccMacVtepFloodListTableSm> VccMacVtepFloodListTableSmIs(const Qnet::EthAddr&, FloodListRef,
                                                                           RmxPerVniFdbStatusSmBase*,
                                                                           SourceRef);
  static const Kel::TypeNode type;
  const Kel::TypeNode& fwkType() const override { return type; }
  ~VccMacVtepFloodListTableSm() override;

  void hasNotificationActiveIs(bool active) override {
    MacVtepFloodListTableSmBase::hasNotificationActiveIs(active);
  }
  using MacVtepFloodListTableSmBase::handleVtepIpFloodList;
  void handleVtepIpFloodList(Qnet::IpAddr ip) override;
  void cleanup() override;
  void handleInitialized() override;
  void kelDoZombieReactors(bool zombie) override { MacVtepFloodListTableSmBase::kelDoZombieReactors(zombie); }

  SourceRef rmxSde() const { return rmxSde_.get(); }
  auto parameters() const { return Kel::rawValues(macVtepFloodListTable(), &owner(), rmxSde()); }

 private:
  Kel::Ptr<L2Rib::FloodSet> floodSetOfAll(Bridging::VlanId vlan);
  void writeList(Bridging::VlanId vlan, const char* operation);

  Kel::Held<L2Rib::SourceDirEntry> rmxSde_;
};

// Copies the received host table into the controller's input to the L2 RIB. Every entry becomes one host of
// the same key, also one that is marked for deletion; a key that leaves the table is deleted. When it is
// built it reconciles: what the host input holds without an entry goes first, then every entry is written.
class KEL_API ReceivedHostTableToL2RibHostInputSm final : public Kel::StateMachine {
 public:
  static constexpr Kel::Parameters<2> parameterNames{"_receivedHostTable", "_l2RibRmxInput"};

  ReceivedHostTableToL2RibHostInputSm(ReceivedHostTableRef receivedHostTable, HostInputRef l2RibRmxInput);
  static Kel::Ptr<ReceivedHostTableToL2RibHostInputSm> ReceivedHostTableToL2RibHostInputSmIs(
      ReceivedHostTableRef, HostInputRef);
  static const Kel::TypeNode type;
  const Kel::TypeNode& fwkType() const override { return type; }
  ~ReceivedHostTableToL2RibHostInputSm() override;

  void handleInitialized();
  void handleReceivedHostEntry(Bridging::MacVlanPair key);
  void handleReceivedHostEntry();

  // Follows another table from now on, which is exported in place of the old one; or none, which leaves the
  // hosts as they are.
  void receivedHostTableIs(ReceivedHostTableRef table) { receivedHostTable_.is(table); }
  void receivedHostTableDel() { receivedHostTable_.del(); }
  ReceivedHostTableRef receivedHostTable() const { return receivedHostTable_.get(); }
  HostInputRef l2RibRmxInput() const { return l2RibRmxInput_.get(); }
  bool initialized() const { return initialized_; }
  auto parameters() const { return Kel::rawValues(receivedHostTable(), l2RibRmxInput()); }

 private:
  struct KelReceivedHostTable final : Kel::Reacts<ReceivedHostTable, ReceivedHostTableToL2RibHostInputSm> {
    using Reacts::Reacts;
    void onReceivedEntry(Bridging::MacVlanPair key) override { owner().handleReceivedHostEntry(key); }
    void onReceivedEntrykelImmediate() override { owner().handleReceivedHostEntry(); }
  };
  const L2Rib::Host& hostOf(const ReceivedEntry& entry);

  // The host that is written, with all that the hosts of a VTI have in common already in its place.
  L2Rib::Host host_;
  Qnet::IntfId hostIntf_;
  Kel::Input<const ReceivedHostTable, KelReceivedHostTable> receivedHostTable_{*this, "receivedHostTable"};
  Kel::Held<L2Rib::HostInput> l2RibRmxInput_;
  Kel::Own<bool> initialized_{*this, "initialized", false};
};

// Follows the controller's state and echoes its convergence flag into the switch's client view, as it stands.
// When it goes away it writes false: no reader waits for a convergence that will not end.
class KEL_API RmxStateSm final : public Kel::StateMachine {
 public:
  static constexpr Kel::Parameters<2> parameterNames{"_rmxState", "_rmxStateClientView"};

  RmxStateSm(RmxStateRef rmxState, ClientViewRef rmxStateClientView);
  static Kel::Ptr<RmxStateSm> RmxStateSmIs(RmxStateRef, ClientViewRef);
  static const Kel::TypeNode type;
  const Kel::TypeNode& fwkType() const override { return type; }
  ~RmxStateSm() override;

  void handleInitialized();
  void handleConvergenceInProgress();
  void cleanup();

  RmxStateRef rmxState() const { return rmxState_.get(); }
  // Follows another state from now on and echoes its flag; or none, which leaves the view as it is.
  void rmxStateIs(RmxStateRef state) { rmxState_.is(state); }
  void rmxStateDel() { rmxState_.del(); }
  ClientViewRef rmxStateClientView() const { return rmxStateClientView_.get(); }
  bool initialized() const { return initialized_; }
  auto parameters() const { return Kel::rawValues(rmxState(), rmxStateClientView()); }

 private:
  struct KelRmxState final : Kel::Reacts<VxlanController::RmxStateV2, RmxStateSm> {
    using Reacts::Reacts;
    void onConvergenceInProgress() override { owner().handleConvergenceInProgress(); }
  };
  Kel::Input<const VxlanController::RmxStateV2, KelRmxState> rmxState_{*this, "rmxState"};
  Kel::Held<VxlanController::RmxStateClientViewV2> rmxStateClientView_;
  Kel::Own<bool> initialized_{*this, "initialized", false};
};

// The echo of the controller's state for programs that need nothing else of the client: keeps a RmxStateSm
// while the controller's state entity is there and some VTI is in controller client mode.
//
//   state       | condition                                  | the client view's convergenceInProgress
//   ------------+--------------------------------------------+----------------------------------------
//   idle        | no state entity, or no VTI in client mode  | false
//   echoing     | both                                       | the controller's flag
class KEL_API RmxStateSmWrapper final : public Kel::StateMachine {
 public:
  RmxStateSmWrapper(VtiStatusDirRef vtiStatusDir, DirRef rmxStateBaseDir, ClientViewRef rmxStateClientView);
  static Kel::Ptr<RmxStateSmWrapper> RmxStateSmWrapperIs(VtiStatusDirRef, DirRef, ClientViewRef);
  static const Kel::TypeNode type;
  const Kel::TypeNode& fwkType() const override { return type; }
  ~RmxStateSmWrapper() override;

  void handleInitialized();
  void handleRmxStateBaseDir(Kel::Name name);
  void handleRmxStateBaseDir();

  // Whether at least one VTI is in controller client mode now.
  bool vxlanControllerClientMode() const;
  bool initialized() const { return initialized_; }
  const Kel::Ptr<RmxStateSm>& rmxStateSm() const { return rmxStateSm_.get(); }
  void rmxStateSmIs(RmxStateRef rmxState, ClientViewRef rmxStateClientView);
  void rmxStateSmDel();
  VtiStatusDirRef vtiStatusDir() const { return vtiStatusDir_.get(); }
  void vtiStatusDirIs(VtiStatusDirRef dir);
  void vtiStatusDirDel();
  DirRef rmxStateBaseDir() const { return rmxStateBaseDir_.get(); }
  void rmxStateBaseDirIs(DirRef dir) { rmxStateBaseDir_.is(dir); }
  void rmxStateBaseDirDel() { rmxStateBaseDir_.del(); }
  ClientViewRef rmxStateClientView() const { return rmxStateClientView_.get(); }

 private:
  struct KelVtiStatusDir;
  struct KelVtiStatus;
  struct KelRmxStateBaseDir final : Kel::Reacts<Kel::Dir, RmxStateSmWrapper> {
    using Reacts::Reacts;
    void onEntityPtr(Kel::Name name) override { owner().handleRmxStateBaseDir(name); }
    void onEntityPtrkelImmediate() override { owner().handleRmxStateBaseDir(); }
  };
  Kel::Input<const VtiStatusDir, KelVtiStatusDir> vtiStatusDir_{*this, "vtiStatusDir"};
  Kel::Input<const Kel::Dir, KelRmxStateBaseDir> rmxStateBaseDir_{*this, "rmxStateBaseDir"};
  Kel::Held<VxlanController::RmxStateClientViewV2> rmxStateClientView_;
  Kel::Child<RmxStateSm> rmxStateSm_{*this, "rmxStateSm"};
  FollowedVtis<KelVtiStatusDir, KelVtiStatus> vtiStatus_{*this, "vtiStatus", vtiStatusDir_};
  Kel::Own<bool> initialized_{*this, "initialized", false};
};

// On a switch of an MLAG pair: mirrors the BUM VTEP lists that the peer publishes into this switch's own
// hardware BUM status, by (MAC, VLAN), while both are in the controller replication mode, so that both halves
// flood to the same VTEPs. Knows VLAN-VNI maps only through three operations, which here find nothing.
class KEL_API RmxMlagBumStatusSmBase : public Kel::StateMachine {
 public:
  using BumVtepListSms = Kel::Children<Kel::OrderedTable, MacVlanPair, BumVtepListSm>;

  RmxMlagBumStatusSmBase(MlagVxlanStatusRef mlagVxlanStatus, HwStatusDirRef vxlanHwStatusDir);
  static Kel::Ptr<RmxMlagBumStatusSmBase> RmxMlagBumStatusSmBaseIs(MlagVxlanStatusRef, HwStatusDirRef);
  static const Kel::TypeNode type;
  const Kel::TypeNode& fwkType() const override { return type; }
  ~RmxMlagBumStatusSmBase() override;

  virtual std::vector<Qnet::IntfId> getVtiIterator() const;
  virtual std::vector<Bridging::VlanId> getVlanIterator(Qnet::IntfId vti) const;
  virtual VniExtOrNone vniForVlan(Qnet::IntfId vti, Bridging::VlanId vlan) const;

  void handleInitialized();
  void handleBumVtepList(MacVlanPair key);
  void handleBumVtepList();
  void handleBumReplicationMode();
  // Makes the local lists of one VLAN a subset of the peer's: removes what this switch holds from before.
  void markAndSweep(Bridging::VlanId vlan);
  void handleVlanVniMapUpdate(Qnet::IntfId vti, Bridging::VlanId vlan);
  void handleVtiUpdate(Qnet::IntfId vti);

  const Kel::Ptr<const BumStatus>& remoteBumStatus() const { return remoteBumStatus_.get(); }
  const Kel::Ptr<BumStatus>& localBumStatus() const { return localBumStatus_.get(); }
  BumReplicationMode bumRepMode() const { return bumRepMode_; }
  void bumRepModeIs(BumReplicationMode mode) { bumRepMode_ = mode; }
  bool initialized() const { return initialized_; }
  void initializedIs(bool initialized) { initialized_ = initialized; }

  const BumVtepListSms& bumVtepListSm() const { return bumVtepListSm_; }
  Kel::Ptr<BumVtepListSm> bumVtepListSm(const MacVlanPair& key) const { return bumVtepListSm_(key); }
  Kel::Ptr<BumVtepListSm> bumVtepListSmIs(const MacVlanPair& key, BumVtepListRef remoteList,
                                          RmxMlagBumStatusSmBase* owner);
  void bumVtepListSmDel(const MacVlanPair& key) { bumVtepListSm_.del(key); }
  void bumVtepListSmDelAll() { bumVtepListSm_.delAll(); }
  void mlagVxlanStatusIs(MlagVxlanStatusRef status);
  void mlagVxlanStatusDel();
  void vxlanHwStatusDirIs(HwStatusDirRef dir);
  void vxlanHwStatusDirDel();
  MlagVxlanStatusRef mlagVxlanStatus() const { return mlagVxlanStatus_.get(); }
  HwStatusDirRef vxlanHwStatusDir() const { return vxlanHwStatusDir_.get(); }

 private:
  struct KelMlagVxlanStatus;
  struct KelVxlanHwStatusDir;
  struct KelRemoteBumStatus;
  struct KelLocalBumStatus;

  void rebindRemote();
  void rebindLocal();
  void sweepMappedVlans();
  void sweepList(const MacVlanPair& key, const char* operation);

  Kel::Input<const Mlag::VxlanStatus, KelMlagVxlanStatus> mlagVxlanStatus_{*this, "mlagVxlanStatus"};
  Kel::Input<VxlanHwStatusDir, KelVxlanHwStatusDir> vxlanHwStatusDir_{*this, "vxlanHwStatusDir"};
  Kel::Input<const BumStatus, KelRemoteBumStatus, Kel::Arrival::Silent> remoteBumStatus_{*this,
                                                                                         "remoteBumStatus"};
  Kel::Input<BumStatus, KelLocalBumStatus, Kel::Arrival::Silent> localBumStatus_{*this, "localBumStatus"};
  Kel::Own<BumReplicationMode> bumRepMode_{*this, "bumRepMode", BumReplicationMode::None};
  BumVtepListSms bumVtepListSm_{*this, "bumVtepListSm"};
  Kel::Own<bool> initialized_{*this, "initialized", false};
};

// The MLAG BUM status machine that runs: knows the VLAN-VNI maps of the VTIs and follows them.
class KEL_API RmxMlagBumStatusSm final : public RmxMlagBumStatusSmBase {
 public:
  // The error names the owner's attribute, no matter which parameter differs.
  static constexpr Kel::Parameters<3> parameterNames{"_rmxMlagBumStatusSm", "_rmxMlagBumStatusSm",
                                                     "_rmxMlagBumStatusSm"};

  RmxMlagBumStatusSm(MlagVxlanStatusRef mlagVxlanStatus, HwStatusDirRef vxlanHwStatusDir,
                     VlanVniMapsRef vlanVniMaps);
  static Kel::Ptr<RmxMlagBumStatusSm> RmxMlagBumStatusSmIs(MlagVxlanStatusRef, HwStatusDirRef,
                                                           VlanVniMapsRef);
  static const Kel::TypeNode type;
  const Kel::TypeNode& fwkType() const override { return type; }
  ~RmxMlagBumStatusSm() override;

  std::vector<Qnet::IntfId> getVtiIterator() const override;
  std::vector<Bridging::VlanId> getVlanIterator(Qnet::IntfId vti) const override;
  VniExtOrNone vniForVlan(Qnet::IntfId vti, Bridging::VlanId vlan) const override;

  VlanVniMapsRef vlanVniMaps() const { return vlanVniMaps_.get(); }
  void vlanVniMapsIs(VlanVniMapsRef maps);
  void vlanVniMapsDel();
  auto parameters() const { return Kel::rawValues(mlagVxlanStatus(), vxlanHwStatusDir(), vlanVniMaps()); }

 private:
  struct KelVlanVniMaps;
  struct KelVtiVlanVniMap;
  Kel::Input<const VlanVniMaps, KelVlanVniMaps> vlanVniMaps_{*this, "vlanVniMaps"};
  Kel::Followed<Kel::Input<const VlanVniMaps, KelVlanVniMaps>, VlanVniMaps::Maps, &VlanVniMaps::vlanVniMap,
                KelVtiVlanVniMap, Kel::Arrival::Silent>
      vtiVlanVniMap_{*this, "vtiVlanVniMap", vlanVniMaps_};
};

// Copies one BUM VTEP list of the MLAG peer, its addresses and its type, into this switch's hardware BUM
// status.
//
//   state     | meaning                                     | entered by
//   ----------+---------------------------------------------+------------------------------------------
//   idle      | no local list bound                         | construction, gate closed or no VNI found
//   mirroring | list bound, address changes are copied      | handleInit, gate open and a VNI found
//   frozen    | list bound, only type changes are copied    | gate closed, or the VLAN lost its mapping
class KEL_API BumVtepListSm final : public Kel::StateMachine {
 public:
  static constexpr Kel::Parameters<2> parameterNames{"_bumVtepList", "_rmxMlagBumStatusSm"};

  BumVtepListSm(const MacVlanPair& macVlanPair, BumVtepListRef bumVtepList,
                RmxMlagBumStatusSmBase* rmxMlagBumStatusSm);
  static Kel::Ptr<BumVtepListSm> BumVtepListSmIs(const MacVlanPair&, BumVtepListRef, RmxMlagBumStatusSmBase*);
  static const Kel::TypeNode type;
  const Kel::TypeNode& fwkType() const override { return type; }
  ~BumVtepListSm() override;

  // Passes the gate (both switches in controller mode, owner initialized, VLAN mapped on some VTI) and
  // mirrors all.
  void handleInit();
  // Makes the local list equal to the peer's.
  void handleRemoteVtepAddr();
  // Brings one address up to date, in mode 3 with a mapped VLAN only.
  void handleRemoteVtepAddr(Qnet::IpAddr ip);
  void handleListType();

  const MacVlanPair& macVlanPair() const { return macVlanPair_; }
  RmxMlagBumStatusSmBase* rmxMlagBumStatusSm() const { return rmxMlagBumStatusSm_; }
  BumVtepListRef bumVtepList() const { return bumVtepList_.get(); }
  // Follows another list of the peer from now on, or none.
  void bumVtepListIs(BumVtepListRef list) { bumVtepList_.is(list); }
  void bumVtepListDel() { bumVtepList_.del(); }
  bool vlanVniMapExists() const { return vlanVniMapExists_; }
  void vlanVniMapExistsIs(bool exists) { vlanVniMapExists_ = exists; }
  const Kel::Ptr<BumVtepList>& localBumVtepList() const { return localBumVtepList_.get(); }
  bool initialized() const { return initialized_; }
  auto parameters() const { return Kel::rawValues(bumVtepList(), rmxMlagBumStatusSm_); }

 private:
  struct KelBumVtepList final : Kel::Reacts<BumVtepList, BumVtepListSm> {
    using Reacts::Reacts;
    void onRemoteVtepAddr(Qnet::IpAddr ip) override { owner().handleRemoteVtepAddr(ip); }
    void onRemoteVtepAddrkelImmediate() override { owner().handleRemoteVtepAddr(); }
    void onBumVtepIpListType() override { owner().handleListType(); }
  };
  Kel::Own<MacVlanPair> macVlanPair_;
  Kel::Input<const BumVtepList, KelBumVtepList> bumVtepList_{*this, "bumVtepList"};
  RmxMlagBumStatusSmBase* rmxMlagBumStatusSm_;  // outlives it
  Kel::Own<bool> vlanVniMapExists_{*this, "vlanVniMapExists", false};
  Kel::Held<BumVtepList> localBumVtepList_{*this, "localBumVtepList"};
  Kel::Own<bool> initialized_{*this, "initialized", false};
};

// The factories. Each counts as a handler and delivers all that the construction set off before it returns,
// so that what it returns is live. Hold the machine for as long as it is to run.
KEL_API Kel::Ptr<VxlanControllerClientSm> vxlanControllerClientSmFactory(
    VtiStatusDirRef vtiStatusDir, DirRef controllerStatusBaseDir, ClientViewRef rmxStateClientView,
    HwStatusDirRef vxlanHwStatusDir, MlagStatusRef mlagStatus, MlagVxlanStatusRef mlagVxlanStatus,
    DirRef rmxStateBaseDir, VlanVniMapsRef vlanVniMaps, SourceRef rmxSde, HostInputRef l2RibRmxInput,
    ConvergenceStatusRef rmxConvergenceStatus);
KEL_API Kel::Ptr<VxlanControllerMacAddrSmBase> vxlanControllerMacAddrSmBaseFactory(
    VtiStatusDirRef vtiStatusDir, DirRef controllerStatusBaseDir, ClientViewRef rmxStateClientView,
    HwStatusDirRef vxlanHwStatusDir, MlagStatusRef mlagStatus, MlagVxlanStatusRef mlagVxlanStatus);
KEL_API Kel::Ptr<RmxStateSmWrapper> rmxStateSmWrapperFactory(VtiStatusDirRef vtiStatusDir,
                                                             DirRef rmxStateBaseDir,
                                                             ClientViewRef rmxStateClientView);
KEL_API Kel::Ptr<RmxMlagBumStatusSmBase> rmxMlagBumStatusSmBaseFactory(MlagVxlanStatusRef mlagVxlanStatus,
                                                                       HwStatusDirRef vxlanHwStatusDir);
KEL_API Kel::Ptr<ReceivedHostTableToL2RibHostInputSm> receivedHostTableToL2RibHostInputSmFactory(
    ReceivedHostTableRef receivedHostTable, HostInputRef l2RibRmxInput);

}  // namespace Vxlan
