"""The loss: distance of compressed spectra, and the ratio of signal to error in time."""

import torch

from network import CLASSES, HOP
from spectra import synthesise

COMPRESSION = 0.3
COMPLEX_SHARE = 0.3      # of the distance between complex values; the rest is that between magnitudes
SPECTRUM_WEIGHT = 3.0
RATIO_WEIGHT = 0.2       # per dB
CLASS_WEIGHTS = (1.0, 1.0, 0.3)
RATIO_LIMIT = 1e-4       # a ratio above 40 dB gains nothing more
LEAK_LIMIT = 1e-4        # an absent class below -40 dB gains nothing more
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


def scale_invariant_ratio(estimate, target, limit=0.0):
    """SI-SDR in dB over the last dimension; no more than 1 / limit."""
    energy = (target ** 2).sum(-1, keepdim=True) + TINY
    projection = (estimate * target).sum(-1, keepdim=True) / energy * target
    signal = (projection ** 2).sum(-1)
    error = ((estimate - projection) ** 2).sum(-1)
    return 10.0 * torch.log10((signal + TINY) / (error + limit * signal + TINY))


def separation_loss(classes, targets, audio):
    """`classes` [batch, class, time, bin] are the named ones as the network makes them, `targets` the same of all
    three, `audio` these in time, a hop longer than `synthesise` returns at both ends; all at a level at which the mix
    has power 1. A class that is absent is to be silent: its power in dB below the mix takes the place of the ratio."""
    named = audio[:, :len(CLASSES), HOP:-HOP]
    rest = targets.sum(1, keepdim=True) - classes.sum(1, keepdim=True)
    distance = spectrum_distance(torch.cat([classes, rest], dim=1), targets)
    sound = synthesise(classes)
    ratio = scale_invariant_ratio(sound, named, RATIO_LIMIT)
    leak = 10.0 * torch.log10((sound ** 2).mean(-1) + LEAK_LIMIT)
    in_time = torch.where((named ** 2).mean(-1) > SILENT, -ratio, leak)
    return (SPECTRUM_WEIGHT * (distance * torch.tensor(CLASS_WEIGHTS)).sum(1) + RATIO_WEIGHT * in_time.sum(1)).mean()
