#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <utility>

#include <Lumo/Assert.h>
#include <Lumo/Exception.h>
#include <Lumo/GenericValue.h>
#include <Norv/ConnectionsMgr.h>
#include <Norv/GrpcClient.h>
#include <Norv/ManagerTrace.h>

#include "Follow.h"

namespace Norv {

namespace {

// Kept on purpose: asked of the environment at each decision, never remembered.
bool simulation() {
  return std::getenv("SIMULATION_NORV") != nullptr;
}

void checkGroup(const Lumo::Ptr<CmdConfigGroup>& group) {
  if (!group) Lumo::throwRangeException("the queue of commands must not be null");
}

}  // namespace

// A connection in the making. Its worker, which nobody can stop once it runs, begins when the rest
// of the initialization is done; if that fails, all is taken down again.
class ConnectionsMgr::Connecting {
 public:
  explicit Connecting(ConnectionsMgr& mgr) : mgr_(mgr) {}
  ~Connecting() {
    if (worker_->load() == waits) takeDown();
  }
  Connecting(const Connecting&) = delete;
  Connecting& operator=(const Connecting&) = delete;

  void connect();
  void succeeded() { tellWorker(begins); }

 private:
  enum Worker { waits, begins, leaves };

  // Out of line, so that a look at the heap tells the worker's own object from all else.
  [[gnu::noinline]] void startWorker();
  void tellWorker(Worker what) {
    worker_->store(what);
    worker_->notify_one();
  }
  void takeDown();

  ConnectionsMgr& mgr_;
  bool connected_ = false;
  // Shared with the worker, which may look at it last.
  const std::shared_ptr<std::atomic<Worker>> worker_ = std::make_shared<std::atomic<Worker>>(waits);
};

void ConnectionsMgr::Connecting::connect() {
  const std::string address =
      mgr_.hostConfig_->host().stdString() + ":" + std::to_string(mgr_.hostConfig_->portNum());
  Twine::trace<ManagerTrace::connecting>(address);
  mgr_.threadLockIs(nullptr);
  mgr_.threadConditionIs(nullptr);
  mgr_.clientIs(nullptr);
  mgr_.grpcReplyThreadIs(nullptr);
  connected_ = true;
  mgr_.threadLockIs(new Lumo::Lock());
  mgr_.threadConditionIs(new Lumo::Condition());
  const std::shared_ptr<grpc::Channel> channel =
      grpc::CreateChannel(address, grpc::InsecureChannelCredentials());
  mgr_.clientIs(new GrpcClient(channel, mgr_.pendingQueue_, mgr_.grpcErrorHandlingStatus_,
                               mgr_.threadLock_, mgr_.threadCondition_));
  startWorker();
  Twine::trace<ManagerTrace::clientStarted>(mgr_.client_);
}

void ConnectionsMgr::Connecting::startWorker() {
  mgr_.grpcReplyThreadIs(new std::thread([worker = worker_, client = mgr_.client_] {
    ::pthread_setname_np(::pthread_self(), "norv-worker");  // for those who look at threads
    worker->wait(waits);
    if (worker->load() == begins) client->doProcessGrpcCmd();
  }));
}

void ConnectionsMgr::Connecting::takeDown() {
  mgr_.initializedIs(false);
  if (!connected_) return;
  tellWorker(leaves);
  if (mgr_.grpcReplyThread_) mgr_.grpcReplyThread_->join();
  delete std::exchange(mgr_.grpcReplyThread_, nullptr);
  delete std::exchange(mgr_.threadCondition_, nullptr);
  delete std::exchange(mgr_.threadLock_, nullptr);
  delete std::exchange(mgr_.client_, nullptr);
}

ConnectionsMgr::LumoGlobalCmdConfig::LumoGlobalCmdConfig(
    const Lumo::Ptr<GrpcGlobalCmdConfig>& config, ConnectionsMgr* owner)
    : connectionsMgr_(owner) {
  startFollowing(config);
}

void ConnectionsMgr::LumoGlobalCmdConfig::hasNotificationActiveIs(bool active) {
  if (active == hasNotificationActive()) return;
  GrpcGlobalCmdConfig::NotifieeConst::hasNotificationActiveIs(active);
}

void ConnectionsMgr::LumoGlobalCmdConfig::onCmdConfigGroup(Lumo::Name name) {
  if (lumoMarkedForDeletion() || !connectionsMgr_) return;
  connectionsMgr_->lumo_handleGlobalCmdConfig_cmdConfigGroup(name);
}

ConnectionsMgr::ConnectionsMgr(const Lumo::Ptr<const ConnectionConfig>& hostConfig,
                               const Lumo::Ptr<GrpcGlobalCmdConfig>& globalCmdConfig,
                               const Lumo::Ptr<CmdGroup>& pendingQueue,
                               const Lumo::Ptr<GrpcErrorHandlingStatus>& grpcErrorHandlingStatus)
    : hostConfig_(hostConfig),
      pendingQueue_(pendingQueue),
      grpcErrorHandlingStatus_(grpcErrorHandlingStatus) {
  if (globalCmdConfig) {
    lumoGlobalCmdConfig_ = Lumo::allocate<LumoGlobalCmdConfig>(globalCmdConfig, this);
  }
  try {
    handleInitialized();
  } catch (...) {
    leave();
    throw;
  }
}

Lumo::ValidPtr<ConnectionsMgr> ConnectionsMgr::ConnectionsMgrIs(
    const Lumo::Ptr<const ConnectionConfig>& hostConfig,
    const Lumo::Ptr<GrpcGlobalCmdConfig>& globalCmdConfig, const Lumo::Ptr<CmdGroup>& pendingQueue,
    const Lumo::Ptr<GrpcErrorHandlingStatus>& grpcErrorHandlingStatus) {
  return Lumo::allocate<ConnectionsMgr>(hostConfig, globalCmdConfig, pendingQueue,
                                        grpcErrorHandlingStatus);
}

ConnectionsMgr::~ConnectionsMgr() {
  destroyGrpcClient();
  leave();
}

// Nobody reaches the manager any more through what it follows.
void ConnectionsMgr::leave() {
  lumoDoZombieReactors(true);
  if (lumoGlobalCmdConfig_) lumoGlobalCmdConfig_->connectionsMgrIs(nullptr);
  cmdConfigGroupSmDelAll();
}

Lumo::Ptr<GrpcGlobalCmdConfig> ConnectionsMgr::globalCmdConfig() const {
  if (!lumoGlobalCmdConfig_) return nullptr;
  return const_cast<GrpcGlobalCmdConfig*>(lumoGlobalCmdConfig_->notifier().ptr());
}

void ConnectionsMgr::globalCmdConfigIs(const Lumo::Ptr<GrpcGlobalCmdConfig>& config) {
  follow(this, lumoGlobalCmdConfig_, config, &LumoGlobalCmdConfig::connectionsMgrIs);
}

Lumo::ValidPtr<CmdConfigGroupSm> ConnectionsMgr::cmdConfigGroupSmIs(
    const Lumo::Ptr<CmdConfigGroup>& group) {
  checkGroup(group);
  // A producer may drop the manager meanwhile, and set the pointer that it gave.
  const Lumo::Ptr<ConnectionsMgr> self(this);
  const Lumo::Ptr<CmdConfigGroup> queue = group;
  const Lumo::Name name = queue->name();
  Lumo::Ptr<CmdConfigGroupSm> machine = cmdConfigGroupSm_[name];
  if (!machine) {
    // Kept on purpose: made first, entered afterwards. A queue that a producer removes meanwhile
    // leaves its machine behind.
    Lumo::Ptr<CmdConfigGroupSm> made = CmdConfigGroupSm::CmdConfigGroupSmIs(queue, this);
    // Making it moved commands, and a producer that follows them may have caused a machine of the
    // same name meanwhile.
    machine = cmdConfigGroupSm_[name];
    if (!machine) {
      cmdConfigGroupSm_.memberIs(name, made);
      return made;
    }
  }
  const Lumo::Ptr<CmdConfigGroup> current = machine->configGroup();
  if (current != queue) {
    Lumo::throwNameInUseException(
        Lumo::String("Reinstantiating the pointer interface where constructor parameter attribute "
                     "_configGroup has a different value of ") +
        Lumo::objectStrep(queue.ptr()) + " than the current value of " +
        Lumo::objectStrep(current.ptr()) + " not allowed");
  }
  return machine;
}

Lumo::Ptr<CmdConfigGroupSm> ConnectionsMgr::cmdConfigGroupSmDel(Lumo::Name name) {
  Lumo::Ptr<CmdConfigGroupSm> machine = cmdConfigGroupSm_.memberDel(name);
  if (machine) machine->letGo();
  return machine;
}

Lumo::Ptr<CmdConfigGroupSm> ConnectionsMgr::cmdConfigGroupSmDel(
    CmdConfigGroupSmIterator& iterator) {
  if (!iterator || cmdConfigGroupSm_[iterator.key()] != iterator.ptr()) return nullptr;
  return cmdConfigGroupSmDel(iterator.key());
}

void ConnectionsMgr::cmdConfigGroupSmDelAll() {
  for (auto iterator = cmdConfigGroupSmIterator(); iterator; ++iterator) {
    cmdConfigGroupSmDel(iterator);
  }
}

void ConnectionsMgr::handleInitialized() {
  Twine::trace<ManagerTrace::handleInitialized>();
  if (initialized_) return;
  const Lumo::Ptr<ConnectionsMgr> self(this);  // a producer may drop the manager meanwhile
  Connecting connecting(*this);
  if (!simulation()) connecting.connect();
  initializedIs(true);

  LUMO_ASSERT(globalCmdConfig(), "globalCmdConfig()");
  std::vector<Lumo::Name> present;
  for (auto group = globalCmdConfig()->cmdConfigGroupIteratorConst(); group; ++group) {
    present.push_back(group.key());
  }
  for (const Lumo::Name& name : present) handleCmdConfigGroup(name);
  connecting.succeeded();
}

void ConnectionsMgr::destroyGrpcClient() {
  Twine::trace<ManagerTrace::destroyGrpcClient>();
  if (simulation()) return;
  LUMO_ASSERT(grpcReplyThread(), "grpcReplyThread()");
  delete grpcReplyThread();
  LUMO_ASSERT(threadCondition(), "threadCondition()");
  delete threadCondition();
  LUMO_ASSERT(threadLock(), "threadLock()");
  delete threadLock();
  LUMO_ASSERT(client(), "client()");
  delete client();
}

void ConnectionsMgr::doFlushPendingQueue() {
  Twine::trace<ManagerTrace::doFlushPendingQueue>();
  if (!initialized_ || simulation()) return;
  Lumo::LockAnchor anchor(threadLock_, 0);
  pendingQueue_->cmdBatchDelAll();
}

void ConnectionsMgr::doEnqueueBatch(const Lumo::Ptr<CmdConfigGroup>& group) {
  Twine::trace<ManagerTrace::doEnqueueBatch>();
  if (!initialized_) return;
  checkGroup(group);
  // A producer may drop the manager meanwhile, and set the pointer that it gave.
  const Lumo::Ptr<ConnectionsMgr> self(this);
  const Lumo::Ptr<CmdConfigGroup> queue = group;
  if (grpcErrorHandlingStatus_->errorOccured()) queue->cmdBatchDelAll();
  if (simulation()) {
    doEnqueueBatchHelper(queue);
    return;
  }
  Lumo::LockAnchor anchor(threadLock_, 0);
  if (doEnqueueBatchHelper(queue) == 0) return;
  Twine::trace<ManagerTrace::wakeClient>();
  threadCondition_->signal();
}

U32 ConnectionsMgr::doEnqueueBatchHelper(const Lumo::Ptr<CmdConfigGroup>& group) {
  checkGroup(group);
  // As above.
  const Lumo::Ptr<CmdGroup> pending = pendingQueue_;
  const Lumo::Ptr<CmdConfigGroup> queue = group;
  const U32 waiting = queue->cmdBatchs();
  while (Lumo::Ptr<GrpcCmd> cmd = queue->cmdBatchDeq()) pending->cmdBatchEnq(std::move(cmd));
  return waiting;
}

void ConnectionsMgr::handleCmdConfigGroup(Lumo::Name name) {
  Twine::trace<ManagerTrace::handleCmdConfigGroup>(name);
  if (!initialized_) return;
  const Lumo::Ptr<GrpcGlobalCmdConfig> config = globalCmdConfig();
  if (!config) Lumo::throwRangeException("the manager follows no collection of queues");
  if (const Lumo::Ptr<CmdConfigGroup> group = config->cmdConfigGroup(name)) {
    Twine::trace<ManagerTrace::creatingSm>(name);
    cmdConfigGroupSmIs(group);
  } else {
    Twine::trace<ManagerTrace::deletingSm>(name);
    cmdConfigGroupSmDel(name);
  }
}

void ConnectionsMgr::lumoDoZombieReactors(bool zombie) {
  if (zombie == lumoMarkedForDeletion()) return;
  if (const Lumo::Ptr<LumoGlobalCmdConfig> reactor = lumoGlobalCmdConfig_) {
    reactor->lumoDoZombieReactors(zombie);
  }
  lumoMarkedForDeletionIs(zombie);
}

void ConnectionsMgr::hasNotificationActiveIs(bool active) {
  if (active == hasNotificationActive()) return;
  PtrInterface::hasNotificationActiveIs(active);
  if (lumoGlobalCmdConfig_) lumoGlobalCmdConfig_->hasNotificationActiveIs(active);
  for (auto machine = cmdConfigGroupSmIterator(); machine; ++machine) {
    machine.ptr()->hasNotificationActiveIs(active);
  }
}

Lumo::Ptr<ConnectionsMgr> connectionsMgrFactory(
    Lumo::Ptr<ConnectionConfig const> hostConfig, Lumo::Ptr<GrpcGlobalCmdConfig> globalCmdConfig,
    Lumo::Ptr<CmdGroup> pendingQueue, Lumo::Ptr<GrpcErrorHandlingStatus> grpcErrorHandlingStatus) {
  return ConnectionsMgr::ConnectionsMgrIs(hostConfig, globalCmdConfig, pendingQueue,
                                          grpcErrorHandlingStatus);
}

}  // namespace Norv
