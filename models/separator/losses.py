"""The loss: distance of compressed spectra at several resolutions, and the ratio of signal to error in time."""

import torch

from network import CLASSES, HOP

COMPRESSION = 0.3
COMPLEX_SHARE = 0.3      # of the distance between complex values; the rest is that between magnitudes
RESOLUTIONS = (256, 512, 1024)
SPECTRUM_WEIGHT = 3.0
RATIO_WEIGHT = 0.1       # per dB
CLASS_WEIGHTS = (1.0, 1.0, 0.3)
RATIO_LIMIT = 1e-3       # a ratio above 30 dB gains nothing more
SILENT = 1e-6            # power of a source below which it counts as absent; the mix has 1
TINY = 1e-8


def spectrum_distance(sound, target, window):
    """[batch, class, sample] twice to [batch, class]: the weighted sum of the squared distances of magnitudes and
    of complex values, all with magnitudes to the power of COMPRESSION."""
    def compressed(audio):
        spectra = torch.stft(audio.flatten(0, 1), window, window // 2, window=torch.hann_window(window), center=False,
                             return_complex=True) / (window / 512.0) ** 0.5
        power = spectra.real ** 2 + spectra.imag ** 2 + 1e-5
        scale = power ** ((COMPRESSION - 1.0) / 2.0)
        return spectra.real * scale, spectra.imag * scale, torch.sqrt(power) * scale
    (a, b, c), (d, e, f) = compressed(sound), compressed(target)
    distance = COMPLEX_SHARE * ((a - d) ** 2 + (b - e) ** 2) + (1.0 - COMPLEX_SHARE) * (c - f) ** 2
    return distance.mean(dim=(1, 2)).reshape(sound.shape[:2])


def scale_invariant_ratio(estimate, target, limit=0.0):
    """SI-SDR in dB over the last dimension; no more than 1 / limit."""
    energy = (target ** 2).sum(-1, keepdim=True) + TINY
    projection = (estimate * target).sum(-1, keepdim=True) / energy * target
    signal = (projection ** 2).sum(-1)
    error = ((estimate - projection) ** 2).sum(-1)
    return 10.0 * torch.log10((signal + TINY) / (error + limit * signal + TINY))


def separation_loss(sound, audio):
    """`sound` [batch, class, sample] of the named classes as `synthesise` makes it, `audio` the same of all three, a
    hop longer at both ends, at a level at which the mix has power 1. A class that is absent is to be silent: its
    power in dB below the mix takes the place of the ratio."""
    audio = audio[..., HOP:-HOP]
    named = audio[:, :len(CLASSES)]
    every = torch.cat([sound, audio.sum(1, keepdim=True) - sound.sum(1, keepdim=True)], dim=1)
    distance = sum(spectrum_distance(every, audio, window) for window in RESOLUTIONS) / len(RESOLUTIONS)
    ratio = scale_invariant_ratio(sound, named, RATIO_LIMIT)
    leak = 10.0 * torch.log10((sound ** 2).mean(-1) + RATIO_LIMIT)
    in_time = torch.where((named ** 2).mean(-1) > SILENT, -ratio, leak)
    return (SPECTRUM_WEIGHT * (distance * torch.tensor(CLASS_WEIGHTS)).sum(1) + RATIO_WEIGHT * in_time.sum(1)).mean()
