#include <cerrno>

#include "Fixture.h"

using namespace bess::pb;

class StandinPorts : public StandinTest::StandinFixture {
 protected:
  static constexpr const char* keepMac = "00:00:00:00:00:00";

  int configure(const std::string& name, const std::string& mac, std::uint32_t mtu) {
    SetPortConfRequest request;
    request.set_name(name);
    request.mutable_conf()->set_mac_addr(mac);
    request.mutable_conf()->set_mtu(mtu);
    return call(&Stub::SetPortConf, request).error().code();
  }

  PortConf conf(const std::string& name) {
    GetPortConfRequest request;
    request.set_name(name);
    return call(&Stub::GetPortConf, request).conf();
  }

  int destroy(const std::string& name) {
    DestroyPortRequest request;
    request.set_name(name);
    return call(&Stub::DestroyPort, request).error().code();
  }

  static MacAddressRequest mac(const std::string& port, const std::string& address) {
    MacAddressRequest request;
    request.set_name(port);
    request.set_mac_addr(address);
    return request;
  }
};

TEST_F(StandinPorts, ADeviceBelongsToOnePort) {
  EXPECT_EQ(createPort("a", "net_null0"), 0);
  EXPECT_EQ(createPort("b", "net_null0"), EBUSY);
  EXPECT_EQ(createPort("a", "net_null1"), EEXIST);
  EXPECT_EQ(destroy("a"), 0);
  EXPECT_EQ(createPort("b", "net_null0"), 0);
}

TEST_F(StandinPorts, APortInUseStays) {
  createPort("p", "net_null0");
  PortOutArg arg;
  arg.set_port("p");
  EXPECT_EQ(createModule("PortOut", "po", arg), 0);
  EXPECT_EQ(destroy("p"), EBUSY);
  EXPECT_EQ(ask(&Stub::ResetPorts).error().code(), EBUSY);
  destroyModule("po");
  EXPECT_EQ(destroy("p"), 0);
}

TEST_F(StandinPorts, AQueueHasOneUser) {
  createPort("p", "net_null0", 2);
  QueueOutArg queue;
  queue.set_port("p");
  queue.set_qid(1);
  EXPECT_EQ(createModule("QueueOut", "q1", queue), 0);
  EXPECT_EQ(createModule("QueueOut", "q1b", queue), EBUSY);
  PortOutArg all;
  all.set_port("p");
  EXPECT_EQ(createModule("PortOut", "po", all), EBUSY);
  queue.set_qid(9);
  EXPECT_EQ(createModule("QueueOut", "q9", queue), EINVAL);
}

TEST_F(StandinPorts, ARefusedModuleLeavesItsQueuesFree) {
  createPort("p", "net_null0");
  PortIncArg arg;
  arg.set_port("p");
  EXPECT_EQ(createModule("PortInc", "pi", arg), 0);
  EXPECT_EQ(createModule("PortInc", "pi", arg), EEXIST);
  destroyModule("pi");
  EXPECT_EQ(destroy("p"), 0);
}

TEST_F(StandinPorts, ZeroesKeepTheConfiguration) {
  createPort("p", "net_null0");
  EXPECT_EQ(configure("p", "02:00:00:00:00:05", 1400), 0);
  EXPECT_EQ(configure("p", "00:00:00:00:00:00", 0), 0);
  EXPECT_EQ(conf("p").mac_addr(), "02:00:00:00:00:05");
  EXPECT_EQ(conf("p").mtu(), 1400u);
}

TEST_F(StandinPorts, TheMtuHasBounds) {
  createPort("p", "net_null0");
  EXPECT_EQ(configure("p", keepMac, 67), EINVAL);
  EXPECT_EQ(configure("p", keepMac, 2049), EINVAL);
  EXPECT_EQ(configure("p", keepMac, 68), 0);
  EXPECT_EQ(configure("p", keepMac, 2048), 0);
}

TEST_F(StandinPorts, ASocketPortHasNothingToConfigure) {
  CreatePortRequest request;
  request.set_driver("UnixSocketPort");
  EXPECT_EQ(call(&Stub::CreatePort, request).name(), "unix_port0");
  EXPECT_EQ(configure("unix_port0", keepMac, 1400), EOPNOTSUPP);
}

TEST_F(StandinPorts, MacAddressesComeAndGo) {
  createPort("p", "net_null0");
  const std::string address = "02:00:00:00:00:09";
  EXPECT_EQ(call(&Stub::AddPortMacAddress, mac("p", address)).error().code(), 0);
  EXPECT_EQ(call(&Stub::AddPortMacAddress, mac("p", address)).error().code(), EEXIST);
  EXPECT_EQ(call(&Stub::RemovePortMacAddress, mac("p", address)).error().code(), 0);
  EXPECT_EQ(call(&Stub::RemovePortMacAddress, mac("p", address)).error().code(), ENOENT);
}

TEST_F(StandinPorts, MacAddressesNeedAPortAndAnAddress) {
  createPort("p", "net_null0");
  EXPECT_EQ(call(&Stub::AddPortMacAddress, mac("nope", "02:00:00:00:00:09")).error().code(),
            ENOENT);
  EXPECT_EQ(call(&Stub::AddPortMacAddress, mac("p", "zz")).error().code(), EINVAL);
}

TEST_F(StandinPorts, AConfigurationWantsAnAddress) {
  createPort("p", "net_null0");
  EXPECT_EQ(configure("p", "", 1400), EINVAL);
  EXPECT_EQ(configure("p", "zz", 1400), EINVAL);
  EXPECT_EQ(configure("p", "02:00:00:00:00:01:02", 1400), 0);
}

TEST_F(StandinPorts, ARefusedAddressLeavesTheMtuChangedAndTheLinkDown) {
  createPort("p", "net_null0");
  EXPECT_EQ(configure("p", "ff:ff:ff:ff:ff:ff", 1400), EINVAL);
  EXPECT_EQ(conf("p").mtu(), 1400u);
  EXPECT_TRUE(conf("p").admin_up());
  GetLinkStatusRequest request;
  request.set_name("p");
  EXPECT_FALSE(call(&Stub::GetLinkStatus, request).link_up());
}

TEST_F(StandinPorts, TheLinkFollowsTheAdministration) {
  createPort("p", "net_null0");
  GetLinkStatusRequest status;
  status.set_name("p");
  EXPECT_TRUE(call(&Stub::GetLinkStatus, status).link_up());
  SetPortConfRequest request;
  request.set_name("p");
  request.mutable_conf()->set_mac_addr(keepMac);
  EXPECT_EQ(call(&Stub::SetPortConf, request).error().code(), 0);
  EXPECT_FALSE(call(&Stub::GetLinkStatus, status).link_up());
  EXPECT_FALSE(conf("p").admin_up());
  request.mutable_conf()->set_admin_up(true);
  EXPECT_EQ(call(&Stub::SetPortConf, request).error().code(), 0);
  EXPECT_TRUE(call(&Stub::GetLinkStatus, status).link_up());
  EXPECT_TRUE(conf("p").admin_up());
}

TEST_F(StandinPorts, AConfigurationThatNamesNoPortOrAddressPausesNothing) {
  createModule("Source", "src");
  EXPECT_EQ(configure("nope", keepMac, 0), ENOENT);
  EXPECT_TRUE(ask(&Stub::ListWorkers).workers_status().empty());
  createPort("p", "net_null0");
  EXPECT_EQ(configure("p", keepMac, 67), EINVAL);
  EXPECT_FALSE(ask(&Stub::ListWorkers).workers_status().empty());
}

TEST_F(StandinPorts, QueuesAreCountedAndMeasuredForEachDirection) {
  CreatePortRequest request;
  request.set_driver("PMDPort");
  PMDPortArg arg;
  int device = 0;
  const auto create = [&](std::uint64_t inc, std::uint64_t out, std::uint64_t incSize,
                          std::uint64_t outSize) {
    arg.set_vdev("net_null" + std::to_string(device++));
    request.mutable_arg()->PackFrom(arg);
    request.set_num_inc_q(inc);
    request.set_num_out_q(out);
    request.set_size_inc_q(incSize);
    request.set_size_out_q(outSize);
    return refusal(call(&Stub::CreatePort, request).error());
  };
  EXPECT_EQ(create(128, 128, 4096, 4096), "");
  EXPECT_EQ(create(129, 1, 0, 0), "22 Invalid number of queues");
  EXPECT_EQ(create(1, 129, 0, 0), "22 Invalid number of queues");
  EXPECT_EQ(create(1, 1, 4097, 0), "22 Invalid queue size");
  EXPECT_EQ(create(1, 1, 0, 4097), "22 Invalid queue size");
}

TEST_F(StandinPorts, AnAbstractSocketBelongsToOnePort) {
  CreatePortRequest request;
  request.set_driver("UnixSocketPort");
  UnixSocketPortArg arg;
  arg.set_path("@here");
  request.mutable_arg()->PackFrom(arg);
  EXPECT_EQ(call(&Stub::CreatePort, request).error().code(), 0);
  EXPECT_EQ(refusal(call(&Stub::CreatePort, request).error()),
            std::to_string(EADDRINUSE) + " bind() failed");
  arg.set_path("/nowhere/at/all");
  request.mutable_arg()->PackFrom(arg);
  EXPECT_EQ(call(&Stub::CreatePort, request).error().code(), ENOENT);
}

TEST_F(StandinPorts, APciAddressHasThreeNumbersOrFour) {
  CreatePortRequest request;
  request.set_driver("PMDPort");
  PMDPortArg arg;
  const auto create = [&](const std::string& pci) {
    arg.set_pci(pci);
    request.mutable_arg()->PackFrom(arg);
    return refusal(call(&Stub::CreatePort, request).error());
  };
  EXPECT_EQ(create("1:02:03.4"), "19 Cannot attach PCI device 00000001:02:03.04");
  EXPECT_EQ(create("02:03.4"), "19 Cannot attach PCI device 00000000:02:03.04");
  EXPECT_EQ(create("02"), "22 PCI address must be like dddd:bb:dd.ff or bb:dd.ff");
}

TEST_F(StandinPorts, EachDriverRefusesInItsWords) {
  createPort("taken", "net_null0");
  const struct {
    const char* driver;
    const char* argument;
    const char* json;
    std::uint64_t queues;
    const char* refusal;
  } rows[] = {
      {"", "EmptyArg", "", 1, "22 Missing 'driver' field"},
      {"NoPort", "EmptyArg", "", 1, "2 No port driver 'NoPort' found"},
      {"PCAPPort", "EmptyArg", "", 1, "22 Error initializing device."},
      {"VPort", "EmptyArg", "", 1, "19 the kernel module is not loaded"},
      {"UnixSocketPort", "EmptyArg", "", 2, "22 Cannot have more than 1 queue per RX/TX"},
      {"UnixSocketPort", "UnixSocketPortArg", R"("path":"/nowhere/at/all")", 1,
       "2 bind(/nowhere/at/all) failed"},
      {"PMDPort", "PMDPortArg", "", 1, "22 No port specified"},
      {"PMDPort", "PMDPortArg", R"("vdev":"net_ring0")", 1, "19 Cannot attach vdev net_ring0"},
      {"PMDPort", "PMDPortArg", R"("vdev":"net_null0")", 1, "16 rte_eth_dev_configure() failed"},
      {"PMDPort", "PMDPortArg", R"("portId":0)", 1, "16 rte_eth_dev_configure() failed"},
      {"PMDPort", "PMDPortArg", R"("portId":5)", 1, "19 Port id 5 is not available"},
      {"PMDPort", "PMDPortArg", R"("portId":32)", 1, "22 Invalid port id 32"},
  };
  for (const auto& row : rows) {
    CreatePortRequest request;
    request.set_driver(row.driver);
    request.set_num_inc_q(row.queues);
    *request.mutable_arg() = packed(row.argument, row.json);
    EXPECT_EQ(refusal(call(&Stub::CreatePort, request).error()), row.refusal)
        << row.driver << row.json;
  }
}

TEST_F(StandinPorts, AFreedNameIsGivenAgain) {
  CreatePortRequest request;
  request.set_driver("UnixSocketPort");
  EXPECT_EQ(call(&Stub::CreatePort, request).name(), "unix_port0");
  EXPECT_EQ(call(&Stub::CreatePort, request).name(), "unix_port1");
  EXPECT_EQ(destroy("unix_port0"), 0);
  EXPECT_EQ(call(&Stub::CreatePort, request).name(), "unix_port0");
}

TEST_F(StandinPorts, AFreedDeviceNumberIsGivenAgain) {
  CreatePortRequest request;
  request.set_driver("PMDPort");
  PMDPortArg arg;
  const auto create = [&](std::uint64_t id) {
    arg.set_port_id(id);
    request.mutable_arg()->PackFrom(arg);
    return call(&Stub::CreatePort, request).error().code();
  };
  createPort("a", "net_null0");
  createPort("b", "net_null1");
  EXPECT_EQ(create(0), EBUSY);
  EXPECT_EQ(create(1), EBUSY);
  EXPECT_EQ(create(2), ENODEV);
  EXPECT_EQ(create(32), EINVAL);
  destroy("a");
  EXPECT_EQ(create(0), ENODEV);
  createPort("c", "net_null2");
  EXPECT_EQ(create(0), EBUSY);
}

TEST_F(StandinPorts, RequestsThatNameNoPortAreToldSo) {
  EXPECT_EQ(refusal(call(&Stub::SetPortConf, SetPortConfRequest()).error()),
            "22 Port name is not given");
  EXPECT_EQ(refusal(call(&Stub::GetPortConf, GetPortConfRequest()).error()),
            "22 Port name is not given");
  EXPECT_EQ(refusal(call(&Stub::DestroyPort, DestroyPortRequest()).error()),
            "22 Argument must be a name in str");
}
