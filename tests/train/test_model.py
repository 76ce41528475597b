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


@pytest.mark.parametrize("channels, blocks, expansion", [
    (4, 2, 2), (4, 4, 2), (4, 2, 4), (4, 5, 3), (8, 2, 2), (12, 3, 4)])
def test_a_grown_network_computes_what_it_grew_from(channels, blocks, expansion):
    small = ModelConfig(channels=4, blocks=2, expansion=2)
    before = trained(small)
    after = grow(trained(ModelConfig(channels=channels, blocks=blocks, expansion=expansion)), small,
                 before.state_dict())
    magnitude = torch.rand(1, 2, 8, 2048) + 0.1
    with torch.no_grad():
        assert torch.allclose(after.masks(magnitude), before.masks(magnitude), atol=1e-5)


def test_copies_of_a_widened_channel_learn_apart():
    """Copies that get equal gradients stay copies: the widening would buy nothing."""
    small = ModelConfig(channels=4, blocks=2, expansion=2)
    wide = grow(Separator(ModelConfig(channels=8, blocks=2, expansion=2)), small, trained(small).state_dict())
    wide.masks(torch.rand(1, 2, 8, 2048) + 0.1)[:, 0].sum().backward()
    gradient = wide.blocks[0].norm.weight.grad
    assert not torch.allclose(gradient[:4], gradient[4:], rtol=1e-3)


@pytest.mark.parametrize("grown", [dict(channels=6), dict(channels=2), dict(blocks=1), dict(mix_bands_every=3)])
def test_growth_that_would_change_the_function_is_refused(grown):
    small = ModelConfig(channels=4, blocks=2, expansion=2)
    with pytest.raises(ValueError, match="only channels"):
        grow(Separator(ModelConfig(**{**small.to_dict(), **grown})), small, trained(small).state_dict())
