"""Windows and spectra as the library makes them: half-overlapping windows, the square root of a
periodic Hann window before the transform and after its inverse."""

import math

import torch

from network import HOP, WINDOW

TAPER = torch.sin(math.pi * torch.arange(WINDOW) / WINDOW)


def analyse(audio):
    """[..., sample] to complex [..., time, bin]. The samples are a whole number of hops; the first and
    the last half window are covered once only, see `synthesise`."""
    hops = audio.reshape(*audio.shape[:-1], -1, HOP)
    windows = torch.cat([hops[..., :-1, :], hops[..., 1:, :]], dim=-1)
    return torch.fft.rfft(windows * TAPER.to(windows.device))


def synthesise(spectra):
    """Complex [..., time, bin] to [..., sample]: without the first and the last hop, where only one
    window reaches."""
    windows = torch.fft.irfft(spectra, n=WINDOW) * TAPER.to(spectra.device)
    audio = windows[..., :-1, HOP:] + windows[..., 1:, :HOP]
    return audio.flatten(-2)
