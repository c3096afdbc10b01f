"""The optimiser of the matrices: each step adds a matrix to them whose singular values are all about the same.

After "Muon: An optimizer for hidden layers in neural networks" (K. Jordan and others, 2024). Biases, norms
and the last layer are for Adam.
"""

import math

import torch

MOMENTUM = 0.95
SIZE = 0.2                                  # root mean square of a step's elements at a rate of one
STEPS = 5
POLYNOMIAL = (3.4445, -4.7750, 2.0315)      # brings singular values up to one into 0.7 to 1.2 after so many steps


def orthogonal(matrices):
    """[..., row, column] with their singular values all about one: an odd polynomial of them, several times."""
    tall = matrices.shape[-2] > matrices.shape[-1]
    x = matrices.transpose(-1, -2) if tall else matrices
    x = x / (x.flatten(-2).norm(dim=-1)[..., None, None] + 1e-7)
    for _ in range(STEPS):
        square = x @ x.transpose(-1, -2)
        x = POLYNOMIAL[0] * x + (POLYNOMIAL[1] * square + POLYNOMIAL[2] * (square @ square)) @ x
    return x.transpose(-1, -2) if tall else x


class Muon(torch.optim.Optimizer):
    """Groups have `params`, [..., row, column], and `parts`: how many matrices stand in each one below another."""

    def __init__(self, groups, rate):
        super().__init__(groups, {"lr": rate, "parts": 1})

    @torch.no_grad()
    def step(self):
        for group in self.param_groups:
            for parameter in group["params"]:
                mean = self.state[parameter].setdefault("mean", torch.zeros_like(parameter))
                mean.mul_(MOMENTUM).add_(parameter.grad)
                ahead = parameter.grad + MOMENTUM * mean
                if group["parts"] > 1:
                    ahead = ahead.unflatten(0, (group["parts"], -1))
                size = SIZE * math.sqrt(max(ahead.shape[-2:]))
                parameter.add_(orthogonal(ahead).reshape(parameter.shape), alpha=-group["lr"] * size)
