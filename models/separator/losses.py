"""The loss: distance of compressed spectra, and the ratio of signal to error in the time domain."""

import torch

from network import CLASSES, HOP
from spectra import analyse, synthesise

COMPRESSION = 0.3
COMPLEX_SHARE = 0.3      # of the distance between complex values; the rest is that between magnitudes
SPECTRUM_WEIGHT = 3.0
RATIO_WEIGHT = 0.1       # per dB
CLASS_WEIGHTS = (1.0, 1.0, 0.3)
RATIO_LIMIT = 1e-3       # a ratio above 30 dB gains nothing more
SILENT = 1e-6            # power of a source below which it counts as absent; the mix has 1
TINY = 1e-8


def spectrum_distance(shares, mix, targets):
    """[batch, class, time, bin] to [batch, class]: the weighted sum of the squared distances of magnitudes
    m, s and of complex values m exp(ia), s exp(ib), all with magnitudes to the power of COMPRESSION. The
    estimate has the phase of the mix, so that the sum is (m - s (1 - w + w cos(a - b)))^2, w for
    COMPLEX_SHARE, but for terms that do not depend on the estimate."""
    loudness = mix.abs()[:, None] + TINY
    target = targets.abs() + TINY
    cosine = (mix.real[:, None] * targets.real + mix.imag[:, None] * targets.imag) / (loudness * target)
    goal = target ** COMPRESSION * (1.0 - COMPLEX_SHARE + COMPLEX_SHARE * cosine)
    estimate = (shares + 1e-4) ** COMPRESSION * loudness ** COMPRESSION
    return ((estimate - goal) ** 2).mean(dim=(2, 3))


def scale_invariant_ratio(estimate, target, limit=0.0):
    """SI-SDR in dB over the last dimension; no more than 1 / limit."""
    energy = (target ** 2).sum(-1, keepdim=True) + TINY
    projection = (estimate * target).sum(-1, keepdim=True) / energy * target
    signal = (projection ** 2).sum(-1)
    error = ((estimate - projection) ** 2).sum(-1)
    return 10.0 * torch.log10((signal + TINY) / (error + limit * signal + TINY))


def separation_loss(mix, shares, audio):
    """`mix` [batch, time, bin], `shares` [batch, class, time, bin], `audio` of the classes [batch, class,
    sample], at a level at which the mix has power 1. A class that is absent is to be silent: its power in
    dB below the mix takes the place of the ratio."""
    distance = spectrum_distance(shares, mix, analyse(audio))
    named = len(CLASSES)
    sound, target = synthesise(shares[:, :named] * mix[:, None]), audio[:, :named, HOP:-HOP]
    ratio = scale_invariant_ratio(sound, target, RATIO_LIMIT)
    leak = 10.0 * torch.log10((sound ** 2).mean(-1) + RATIO_LIMIT)
    present = (target ** 2).mean(-1) > SILENT
    in_time = torch.where(present, -ratio, leak)
    return (SPECTRUM_WEIGHT * (distance * torch.tensor(CLASS_WEIGHTS, device=distance.device)).sum(1) +
            RATIO_WEIGHT * in_time.sum(1)).mean()
