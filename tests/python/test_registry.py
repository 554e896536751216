"""The node's registry, fetched periodically."""

import pytest

from conftest import run_for_at_most, start_node

REGISTRY = b'{"applications": ["py-registry"]}'


@pytest.fixture
def node_with_registry(tmp_path):
    path = tmp_path / "registry.json"
    path.write_bytes(REGISTRY)
    started = start_node("--registry", str(path))
    yield started
    started.stop()


def test_the_registry_callback_receives_the_registry_bytes(node_with_registry):
    client = node_with_registry.client("py-registry")
    registries = []

    def on_registry(registry):
        registries.append(registry)
        client.terminate()

    client.obtain_registry(on_registry, 60)
    run_for_at_most(client, 5)

    assert registries == [REGISTRY]
