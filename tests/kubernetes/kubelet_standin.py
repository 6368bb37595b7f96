"""A kubelet stand-in that speaks the kubelet's published protocols over real gRPC: it serves
Registration on kubelet.sock in a device plugin directory, dials back every plugin that
registers (as the kubelet does, which is why a plugin must serve before it registers), and
gives tests a client of each registered endpoint. Its stubs are generated from the same
.proto files as the plugin; tests/kubernetes/test_wire.py checks the wire bytes by hand so
that a wrong field number cannot hide behind shared stubs.

Run alone, it serves until interrupted and prints each registration:
  /usr/bin/python3 tests/kubernetes/kubelet_standin.py DIR
"""
import os
import sys
import threading
import time
from concurrent import futures

import grpc

import deviceplugin_pb2 as api
import deviceplugin_pb2_grpc as rpc
import podresources_pb2 as pods_api
import podresources_pb2_grpc as pods_rpc


class Registration(rpc.RegistrationServicer):
    def __init__(self, kubelet):
        self.kubelet = kubelet

    def Register(self, request, context):
        # The kubelet dials the endpoint back right away: it must already serve.
        path = os.path.join(self.kubelet.directory, request.endpoint)
        served = False
        if os.path.exists(path):
            try:
                channel = grpc.insecure_channel("unix://" + path)
                rpc.DevicePluginStub(channel).GetDevicePluginOptions(api.Empty(), timeout=2)
                served = True
                channel.close()
            except grpc.RpcError:
                served = False
        with self.kubelet.lock:
            self.kubelet.registrations.append((time.monotonic(), request, served))
            self.kubelet.registered.notify_all()
        if request.version != "v1beta1":
            context.abort(grpc.StatusCode.INVALID_ARGUMENT, "unsupported version")
        return api.Empty()


class Kubelet:
    """The stand-in: start() serves kubelet.sock in `directory`; restart() does what a kubelet
    restart does to the directory (every socket removed, kubelet.sock made anew)."""

    def __init__(self, directory):
        self.directory = directory
        self.lock = threading.Lock()
        self.registered = threading.Condition(self.lock)
        self.registrations = []
        self.server = None

    def start(self):
        self.server = grpc.server(futures.ThreadPoolExecutor(max_workers=4))
        rpc.add_RegistrationServicer_to_server(Registration(self), self.server)
        self.server.add_insecure_port("unix://" + os.path.join(self.directory, "kubelet.sock"))
        self.server.start()

    def stop(self):
        if self.server is not None:
            self.server.stop(grace=None)
            self.server = None

    def restart(self):
        self.stop()
        for name in os.listdir(self.directory):
            if name.endswith(".sock"):
                os.unlink(os.path.join(self.directory, name))
        self.start()

    def wait_for_registrations(self, count, timeout=10):
        """The registrations so far, once there are `count` of them (or the timeout passed)."""
        with self.lock:
            self.registered.wait_for(lambda: len(self.registrations) >= count, timeout)
            return list(self.registrations)

    def plugin(self, endpoint):
        """A client of a registered endpoint."""
        channel = grpc.insecure_channel("unix://" + os.path.join(self.directory, endpoint))
        return rpc.DevicePluginStub(channel)


class PodResources(pods_rpc.PodResourcesListerServicer):
    """The kubelet's pod resources API on `socket`: List answers with `assigned`, a list of
    (namespace, pod, container, resource, [device ids])."""

    def __init__(self, socket):
        self.socket = socket
        self.assigned = []
        self.server = None

    def List(self, request, context):
        response = pods_api.ListPodResourcesResponse()
        for namespace, pod, container, resource, ids in self.assigned:
            entry = response.pod_resources.add(name=pod, namespace=namespace)
            entry.containers.add(name=container).devices.add(resource_name=resource,
                                                             device_ids=ids)
        return response

    def start(self):
        self.server = grpc.server(futures.ThreadPoolExecutor(max_workers=2))
        pods_rpc.add_PodResourcesListerServicer_to_server(self, self.server)
        self.server.add_insecure_port("unix://" + self.socket)
        self.server.start()

    def stop(self):
        self.server.stop(grace=None)
        if os.path.exists(self.socket):
            os.unlink(self.socket)


if __name__ == "__main__":
    kubelet = Kubelet(sys.argv[1])
    kubelet.start()
    seen = 0
    try:
        while True:
            for at, request, served in kubelet.wait_for_registrations(seen + 1, timeout=3600)[seen:]:
                print(f"registered {request.resource_name} at {request.endpoint} "
                      f"(version {request.version}, served first: {served})", flush=True)
                seen += 1
    except KeyboardInterrupt:
        kubelet.stop()
