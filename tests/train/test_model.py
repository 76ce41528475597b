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


SMALL = dict(channels=4, blocks=2, expansion=2)
ATTENDING = dict(SMALL, attend_every=1, attend_width=4)


@pytest.mark.parametrize("small, grown", [
    (SMALL, dict(channels=4)), (SMALL, dict(blocks=4)), (SMALL, dict(expansion=4)),
    (SMALL, dict(blocks=5, expansion=3)), (SMALL, dict(channels=8)), (SMALL, dict(channels=12, blocks=3, expansion=4)),
    (SMALL, dict(attend_every=2, attend_width=8)), (SMALL, dict(blocks=3, attend_every=1)),
    (ATTENDING, dict(channels=8, blocks=3)), (ATTENDING, dict(channels=12))])
def test_a_grown_network_computes_what_it_grew_from(small, grown):
    small = ModelConfig(**small)
    before = trained(small)
    after = grow(trained(ModelConfig(**{**small.to_dict(), **grown})), small, before.state_dict())
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


@pytest.mark.parametrize("small, grown", [
    (SMALL, dict(channels=6)), (SMALL, dict(channels=2)), (SMALL, dict(blocks=1)), (SMALL, dict(mix_bands_every=3)),
    (ATTENDING, dict(attend_every=0)), (ATTENDING, dict(attend_every=2)), (ATTENDING, dict(attend_width=8))])
def test_growth_that_would_change_the_function_is_refused(small, grown):
    small = ModelConfig(**small)
    with pytest.raises(ValueError, match="only channels"):
        grow(Separator(ModelConfig(**{**small.to_dict(), **grown})), small, trained(small).state_dict())


def test_every_weight_takes_part():
    """A layer built but left out of the forward pass trains nothing and is not noticed otherwise."""
    network = trained(ModelConfig(**ATTENDING))
    network.masks(torch.rand(1, 2, 8, 2048) + 0.1)[:, 0].sum().backward()
    assert [name for name, value in network.named_parameters() if not value.grad.abs().sum()] == []
