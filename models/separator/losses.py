"""The loss: distance of compressed spectra, and the ratio of signal to error in time."""

import math

import torch

from network import CLASSES, HOP
from spectra import synthesise

COMPRESSION = 0.3
COMPLEX_SHARE = 0.3      # of the distance between complex values; the rest is that between magnitudes
SPECTRUM_WEIGHT = 3.0
RATIO_WEIGHT = 0.2       # per dB
CLASS_WEIGHTS = (1.0, 1.0, 0.3)
LIMIT = 1e-4             # an error or a leak below -40 dB gains nothing more
KNEE = 1e-3              # power of an error below which it no longer counts in dB, see `steep`
SILENT = 1e-6            # power of a source below which it counts as absent; the mix has 1
TINY = 1e-8


def compressed(spectra):
    """Real part, imaginary part and magnitude, with the magnitude to the power of COMPRESSION."""
    parts = torch.view_as_real(spectra)
    loudness = 0.5 * torch.log((parts ** 2).sum(-1, keepdim=True) + 1e-5)
    return parts * torch.exp((COMPRESSION - 1.0) * loudness), torch.exp(COMPRESSION * loudness)


def spectrum_distance(spectra, target):
    """[batch, class, time, bin] twice to [batch, class]: the weighted sum of the squared distances of magnitudes and
    of complex values."""
    (parts, loudness), (goals, loudnesses) = compressed(spectra), compressed(target)
    return (2.0 * COMPLEX_SHARE * ((parts - goals) ** 2).mean(dim=(2, 3, 4)) +
            (1.0 - COMPLEX_SHARE) * ((loudness - loudnesses) ** 2).mean(dim=(2, 3, 4)))


def scale_invariant_error(estimate, target):
    """Power of the error against the scaled target, over the last dimension: the inverse of SI-SDR."""
    energy = (target ** 2).sum(-1, keepdim=True) + TINY
    projection = (estimate * target).sum(-1, keepdim=True) / energy * target
    signal = (projection ** 2).sum(-1)
    error = ((estimate - projection) ** 2).sum(-1)
    return (error + TINY) / (signal + TINY)


def scale_invariant_ratio(estimate, target):
    """SI-SDR in dB over the last dimension."""
    return -10.0 * torch.log10(scale_invariant_error(estimate, target))


def steep(error):
    """A power in dB; below KNEE a straight line over the amplitude, with the slope that the decibels have at KNEE.
    Decibels become steeper without end as the error falls: a source that is alone, and nearly right, would pull six
    times as hard at the weights as a mix (median), and little else would be learnt."""
    line = 10.0 * math.log10(KNEE) + 20.0 / math.log(10.0) * (torch.sqrt(error / KNEE) - 1.0)
    return torch.where(error > KNEE, 10.0 * torch.log10(error), line)


def separation_loss(classes, targets, audio):
    """`classes` [batch, class, time, bin] are the named ones as the network makes them, `targets` the same of all
    three, `audio` these in time, a hop longer than `synthesise` returns at both ends; all at a level at which the mix
    has power 1. A class that is absent is to be silent: its power in dB below the mix takes the place of the ratio."""
    named = audio[:, :len(CLASSES), HOP:-HOP]
    rest = targets.sum(1, keepdim=True) - classes.sum(1, keepdim=True)
    distance = spectrum_distance(torch.cat([classes, rest], dim=1), targets)
    sound = synthesise(classes)
    error = torch.where((named ** 2).mean(-1) > SILENT, scale_invariant_error(sound, named), (sound ** 2).mean(-1))
    in_time = steep(error + LIMIT)
    return (SPECTRUM_WEIGHT * (distance * torch.tensor(CLASS_WEIGHTS)).sum(1) + RATIO_WEIGHT * in_time.sum(1)).mean()
