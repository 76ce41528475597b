"""A network grown from a trained one must start where that one stopped:
any difference is training thrown away."""
import pytest
import torch

from tonwerk_train.model import ModelConfig, Separator, grow


def trained(config):
    """A network whose every weight is nonzero, as after training (fresh band mixes are zero)."""
    torch.manual_seed(0)
    network = Separator(config)
    with torch.no_grad():
        for value in network.parameters():
            value.normal_(0, 0.3)
    return network


@pytest.mark.parametrize("blocks, expansion", [(2, 2), (4, 2), (2, 4), (5, 3)])
def test_a_grown_network_computes_what_it_grew_from(blocks, expansion):
    small = ModelConfig(channels=4, blocks=2, expansion=2)
    before = trained(small)
    after = grow(trained(ModelConfig(channels=4, blocks=blocks, expansion=expansion)), small, before.state_dict())
    magnitude = torch.rand(1, 2, 8, 2048) + 0.1
    with torch.no_grad():
        assert torch.allclose(after.masks(magnitude), before.masks(magnitude), atol=1e-6)


@pytest.mark.parametrize("grown", [dict(channels=8), dict(blocks=1), dict(mix_bands_every=3)])
def test_growth_that_would_change_the_function_is_refused(grown):
    small = ModelConfig(channels=4, blocks=2, expansion=2)
    with pytest.raises(ValueError, match="only blocks and expansion may grow"):
        grow(Separator(ModelConfig(**{**small.to_dict(), **grown})), small, trained(small).state_dict())
