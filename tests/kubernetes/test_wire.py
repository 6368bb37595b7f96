"""The wire bytes of one Allocate exchange, written out by hand from the API's field numbers,
against what the plugin answers: a wrong field number or package name in our .proto files
would otherwise hide behind stubs generated from the same files."""
from conftest import vdxctl


def length_delimited(field, payload):
    assert len(payload) < 128  # one-byte lengths keep the hand count simple
    return bytes([(field << 3) | 2, len(payload)]) + payload


def test_allocate_on_the_wire(vdxd, kubelet, start_plugin):
    import grpc

    vdxctl("create", "0", "--units", "8", "--memory", "1024")
    start_plugin()
    kubelet.wait_for_registrations(1)
    channel = grpc.insecure_channel("unix://" + kubelet.directory + "/zovdx-vdev.sock")
    call = channel.unary_unary("/v1beta1.DevicePlugin/Allocate")  # bytes in, bytes out
    # AllocateRequest{container_requests(1): ContainerAllocateRequest{devices_ids(1): "vdev0"}}
    request = length_delimited(1, length_delimited(1, b"vdev0"))
    # AllocateResponse{container_responses(1): ContainerAllocateResponse{
    #   cdi_devices(5): CDIDevice{name(1): "zovdx.dev/vdev=0"}}}
    expected = length_delimited(1, length_delimited(5, length_delimited(1, b"zovdx.dev/vdev=0")))
    assert call(request, timeout=5) == expected
