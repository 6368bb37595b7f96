// Start-up of the manager through the shipped library, one simulated machine per test case:
// failures remembered by every later gated call, the container id, the configuration files
// read at start-up, the process's binding, the log level and the lifetime rules.
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/virtual/e2e_support.h"
#include "zovdx/vdx.h"

namespace {

using e2e::Ctl;
using e2e::Has;
using e2e::Stdout;
using e2e::VdevFile;
using e2e::WriteVdev;

// Every gated function returns the failed start-up's status, again and again, while the
// encryption pair, which needs no start-up, still answers.
void ExpectRemembered(vdxStatus failure) {
  int count = -7;
  EXPECT_EQ(vdxGetMaxVDeviceCount(&count), failure);
  EXPECT_EQ(count, -7) << "a failed start-up reaches no method";
  EXPECT_EQ(vdxSetLogLevel("debug"), failure);
  EXPECT_EQ(vdxGetMaxVDeviceCount(nullptr), failure);
  bool encrypted = true;
  EXPECT_EQ(vdxGetEncryptionVMStatus(&encrypted), VDX_STATUS_SUCCESS);
  EXPECT_FALSE(encrypted);
}

TEST(StartupFailure, ServiceStoppedIsRememberedAndNeverRetried) {
  Ctl({"service", "stop"});
  ExpectRemembered(VDX_STATUS_ERROR_NOT_INITIALIZED);
  Ctl({"service", "start"});
  ExpectRemembered(VDX_STATUS_ERROR_NOT_INITIALIZED);
}

TEST(StartupFailure, ModuleNotLive) {
  Ctl({"module", "coming"});
  ExpectRemembered(VDX_STATUS_ERROR_NOT_INITIALIZED);
}

TEST(StartupFailure, FailingOpenOfTheDeviceGivesTheDriversStatus) {
  // The first open is the service client's (it falls back to the abstract socket), the
  // second the manager's own.
  Ctl({"fault", "open", "EIO", "2"});
  ExpectRemembered(VDX_STATUS_OPEN_MKFD_FAILED);
}

TEST(StartupFailure, AContainerIdThatIsNotHexadecimalFailsWithoutAnException) {
  setenv("VDX_RUNTIME_ENV_OVERRIDE", "container", 1);
  setenv("VDX_OVERRIDE_CONTAINER_ID", "not-hexadecimal", 1);
  ExpectRemembered(VDX_STATUS_INTERNAL_EXCEPTION);
}

TEST(Startup, InitDeviceAndStatusStringsNeverStartTheManager) {
  Ctl({"service", "stop"});
  vdxDeviceInfo info;
  EXPECT_EQ(vdxInitDevice(&info), VDX_STATUS_SUCCESS);
  const char* text = nullptr;
  EXPECT_EQ(vdxGetStatusString(VDX_STATUS_PERMISSION, &text), VDX_STATUS_SUCCESS);
  // Had either started the manager, the stopped service would have failed it for good.
  Ctl({"service", "start"});
  int count = 0;
  EXPECT_EQ(vdxGetMaxVDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 4);
}

TEST(ContainerId, TakenFromTheEnvironmentInHexadecimal) {
  e2e::ShowDebugLines();
  setenv("VDX_CONTAINER_ID", "1f", 1);
  const std::string out = Stdout([] {
    int count = 0;
    EXPECT_EQ(vdxGetMaxVDeviceCount(&count), VDX_STATUS_SUCCESS);
    // An id alone makes no container virtual environment: that takes container files.
    EXPECT_EQ(count, 4);
  });
  EXPECT_TRUE(Has(out, "Get container id form env(0x1f).")) << out;
  EXPECT_TRUE(Has(out, "Get docker ID(0x1f).")) << out;
  EXPECT_FALSE(Has(out, "Process is running in")) << "detection must not run";
}

// The files read at start-up: what parses loads, and each bad file costs only itself.
TEST(ConfigurationFiles, EachBadFileCostsOnlyItself) {
  e2e::ShowDebugLines();
  // Any order, any base, unknown lines, blanks around the values.
  e2e::WriteText("/etc/vdev", "vdev0.conf",
                 "# written by hand\nenable: 1\nvdev_id: 0\ncu_mask:   0xff0\ncu_mask: 0x1\n"
                 "owner: nobody\npipe_id: 02\nmem: 0x1000 MiB\ncu_count: 9\n"
                 "PciBusId: 0000:03:00.0\n");
  VdevFile empty_pci;
  empty_pci.pci = "0000:00:00.0";
  empty_pci.vdev_id = 1;
  WriteVdev(1, empty_pci);
  e2e::WriteText("/etc/vdev", "vdev2.conf",
                 e2e::Text(VdevFile{}) + "cu_mask: 0x1\n");  // a third mask line
  e2e::WriteText("/etc/vdev", "vdev3.conf",
                 "PciBusId: 0000:03:00.0\ncu_count: 8\nmem:\nvdev_id: 3\nenable: 1\n");
  VdevFile disabled;
  disabled.vdev_id = 4;
  disabled.enable = 0;
  WriteVdev(4, disabled);
  VdevFile orphan;
  orphan.pci = "0000:09:00.0";
  orphan.vdev_id = 5;
  WriteVdev(5, orphan);
  VdevFile moved;  // written for device 1, but its address is device 0's now
  moved.device_id = 1;
  moved.vdev_id = 6;
  moved.mask_low = 0xff00;
  WriteVdev(6, moved);
  e2e::WriteText("/etc/vdev", "vdev7.conf", "PciBusId: zz\nenable: 1\n");
  VdevFile second;  // on device 1
  second.pci = e2e::kPci1;
  second.device_id = 1;
  second.vdev_id = 8;
  second.mask_low = 0x3;
  WriteVdev(8, second);

  const std::string out = Stdout([] {
    int count = 0;
    EXPECT_EQ(vdxGetMaxVDeviceCount(&count), VDX_STATUS_SUCCESS);
    EXPECT_EQ(count, 4);
  });
  EXPECT_TRUE(Has(out, "Get virtual device(0)'s cuMask(0x00000000000000010000000000000ff0).")) << out;
  EXPECT_TRUE(Has(out, "file '/etc/vdev/vdev1.conf' has been damaged, due to empty pci bus "
                       "identifier.")) << out;
  EXPECT_TRUE(Has(out, "file '/etc/vdev/vdev2.conf' has been damaged, due to invalid cu_mask "
                       "field count(3).")) << out;
  EXPECT_TRUE(Has(out, "file '/etc/vdev/vdev3.conf' has been damaged, due to key mem: without a "
                       "value.")) << out;
  EXPECT_TRUE(Has(out, "virtual device disabled in configuration file /etc/vdev/vdev4.conf, skip "
                       "it.")) << out;
  EXPECT_TRUE(Has(out, "no physical device matches the pci identifier(0000:09:00.00) of virtual "
                       "device's configuration, skip it.")) << out;
  EXPECT_TRUE(Has(out, "device id(1) in configuration file(/etc/vdev/vdev6.conf) inconsistent "
                       "with pci matched physical device(0), override it.")) << out;
  EXPECT_TRUE(Has(out, "Get virtual device(6)'s cuMask(0x0000000000000000000000000000ff00).")) << out;
  EXPECT_TRUE(Has(out, "file '/etc/vdev/vdev7.conf' has been damaged, due to invalid pci bus id "
                       "format(zz.")) << out;
  EXPECT_TRUE(Has(out, "Get virtual device(8)'s cuMask(0x00000000000000000000000000000003).")) << out;
  // Problem reports carry the red label; all of it is debug output on standard output.
  EXPECT_TRUE(Has(out, "[iGetVirtualDevice] \033[31mError\033[0m: file '/etc/vdev/vdev1.conf'"))
      << out;
  for (int id : {1, 2, 3, 4, 5, 7}) {
    EXPECT_FALSE(Has(out, "Get virtual device(" + std::to_string(id) + ")'s")) << id;
  }
}

TEST(ConfigurationFiles, NothingIsPrintedAtTheDefaultLevel) {
  e2e::WriteText("/etc/vdev", "vdev1.conf", "PciBusId: 0000:00:00.0\nenable: 1\n");
  testing::internal::CaptureStderr();
  const std::string out = Stdout([] { EXPECT_EQ(vdxGetMaxVDeviceCount(nullptr), 10); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

std::string FinalLine(const std::string& out) {
  const size_t at = out.find("Process run mode(");
  return at == std::string::npos ? "" : out.substr(at, out.find('\n', at) - at);
}

TEST(Binding, ContainerFilesWithOwnUnitsGiveVdevMode) {
  e2e::ShowDebugLines();
  VdevFile mine;
  mine.vdev_id = 3;
  mine.cu_count = 1;  // one unit of its own is not sharing
  mine.mask_low = 0x1;
  WriteVdev(3, mine, true);
  const std::string out = Stdout([] {
    int count = -1;
    EXPECT_EQ(vdxGetMaxVDeviceCount(&count), VDX_STATUS_SUCCESS);
    EXPECT_EQ(count, 0) << "a container on virtual devices makes none";
  });
  EXPECT_EQ(FinalLine(out), "Process run mode(2), system mode(0), docker virtual env(1).") << out;
}

TEST(Binding, ContainerFilesThatShareUnitsGiveGroupMode) {
  e2e::ShowDebugLines();
  for (int id : {2, 5}) {
    VdevFile shared;
    shared.vdev_id = id;
    shared.cu_count = 0;
    shared.mask_low = 0;
    shared.pipe_id = id % 4;
    WriteVdev(id, shared, true);
  }
  const std::string out = Stdout([] {
    int count = -1;
    EXPECT_EQ(vdxGetMaxVDeviceCount(&count), VDX_STATUS_SUCCESS);
    EXPECT_EQ(count, 0);
  });
  EXPECT_EQ(FinalLine(out), "Process run mode(1), system mode(0), docker virtual env(1).") << out;
}

// A container given both kinds cannot run: the start-up fails, and with it every gated call.
TEST(Binding, AMixedContainerIsRefused) {
  e2e::ShowDebugLines();
  VdevFile own;
  own.vdev_id = 1;
  WriteVdev(1, own, true);
  VdevFile shared;
  shared.vdev_id = 2;
  shared.cu_count = 0;
  shared.pipe_id = 1;
  WriteVdev(2, shared, true);
  std::string out;
  out = Stdout([] { ExpectRemembered(VDX_STATUS_ERROR); });
  EXPECT_TRUE(Has(out, "share cu vdev count(1) not equal bind vdev(2).")) << out;
  EXPECT_TRUE(Has(out, "initialize bind virtual devices from file system failed.")) << out;
}

TEST(Binding, TheHostMaskBindsTheHostFiles) {
  e2e::ShowDebugLines();
  for (int id : {0, 2}) {
    VdevFile host;
    host.vdev_id = id;
    host.pipe_id = id / 2;
    host.mask_low = 0xffull << (8 * id);
    WriteVdev(id, host);
  }
  setenv("VDX_VDEV_MASK", "5", 1);
  const std::string out = Stdout([] {
    int count = -1;
    EXPECT_EQ(vdxGetMaxVDeviceCount(&count), VDX_STATUS_SUCCESS);
    EXPECT_EQ(count, 4) << "the host keeps making virtual devices";
  });
  EXPECT_EQ(FinalLine(out), "Process run mode(2), system mode(0), docker virtual env(0).") << out;
}

TEST(Binding, AHostMaskThatIsNotANumberBindsNothing) {
  e2e::ShowDebugLines();
  WriteVdev(0, VdevFile{});
  setenv("VDX_VDEV_MASK", "all", 1);
  const std::string out = Stdout([] { EXPECT_EQ(vdxGetMaxVDeviceCount(nullptr), 10); });
  EXPECT_EQ(FinalLine(out), "Process run mode(0), system mode(0), docker virtual env(0).") << out;
}

TEST(Binding, ASharingDeviceCannotBeBoundOnTheHost) {
  e2e::ShowDebugLines();
  VdevFile shared;
  shared.vdev_id = 4;
  shared.cu_count = 0;
  WriteVdev(4, shared);
  setenv("VDX_VDEV_MASK", "16", 1);
  const std::string out = Stdout([] { ExpectRemembered(VDX_STATUS_ERROR); });
  EXPECT_TRUE(Has(out, "share cu vdev can not be bound in bare-metal environment.")) << out;
}

TEST(Binding, MigModeIsReported) {
  e2e::ShowDebugLines();
  Ctl({"system-mode", "mig"});
  const std::string out = Stdout([] { EXPECT_EQ(vdxGetMaxVDeviceCount(nullptr), 10); });
  EXPECT_EQ(FinalLine(out), "Process run mode(0), system mode(1), docker virtual env(0).") << out;
}

// Whether the logger is at debug level now, judged by a refusal's debug line.
bool DebugLinesShow() {
  const std::string out = Stdout([] { EXPECT_EQ(vdxSetLogLevel("trace"), 10); });
  return Has(out, "invalid parameter specified for log level(trace).");
}

TEST(LogLevel, TheFourNamesAndTheRefusals) {
  EXPECT_EQ(vdxSetLogLevel("debug"), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(DebugLinesShow());
  for (const char* refused : {"trace", "error", "Debug", "", "info "}) {
    EXPECT_EQ(vdxSetLogLevel(refused), VDX_STATUS_INVALID_ARGUMENTS) << refused;
  }
  EXPECT_TRUE(DebugLinesShow()) << "a refused name leaves the level alone";
  for (const char* name : {"none", "warning", "info"}) {
    EXPECT_EQ(vdxSetLogLevel(name), VDX_STATUS_SUCCESS) << name;
    EXPECT_FALSE(DebugLinesShow()) << name;
  }
  EXPECT_EQ(vdxSetLogLevel("debug"), VDX_STATUS_SUCCESS);
  EXPECT_TRUE(DebugLinesShow());
}

// At exit the manager tears down only what the process that started it made: a forked
// child's exit leaves the parent's driver connection alone.
TEST(Lifetime, AForkedChildsExitTouchesNothing) {
  ASSERT_EQ(vdxGetMaxVDeviceCount(nullptr), VDX_STATUS_INVALID_ARGUMENTS);
  std::string dump;
  ASSERT_EQ(vdxsim::SimControl({"dump"}, &dump), 0);
  const std::string connection = "pid " + std::to_string(getpid()) + " mode";
  ASSERT_TRUE(Has(dump, connection)) << dump;

  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    vdxSetLogLevel("debug");  // the child shares the started manager: no new start-up
    exit(0);                  // runs the manager's destructor
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ASSERT_EQ(vdxsim::SimControl({"dump"}, &dump), 0);
  EXPECT_TRUE(Has(dump, connection)) << dump;
  int count = 0;
  EXPECT_EQ(vdxGetMaxVDeviceCount(&count), VDX_STATUS_SUCCESS);
  EXPECT_EQ(count, 4);
}

}  // namespace
