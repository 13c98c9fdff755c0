#!/usr/bin/python3
"""Echo-cancellation report for the device's diagnostic recordings.

Reads capture.wav (microphone before processing), capture_aec.wav (after echo
cancellation, noise suppression and gain) and playback.wav (the far end), all
mono, 16-bit, time-aligned, and tells how much echo the processing removed and
how much of the near-end talker it kept.  The analysis functions are importable;
main() is the command line.
"""

import argparse
import json
import os
import sys
from dataclasses import dataclass, field

import numpy as np
import soundfile as sf

FILES = ("capture.wav", "capture_aec.wav", "playback.wav")
# Written beside the recordings by taudio2call: the call's configuration, what
# the device said of its stream (told delay and canceller mode), the delay it
# would tell robust mode and how much earlier than told robust mode reaches.
# The last two come from there so that the report holds no copy of those rules.
CALL_RECORD = "call.json"
AEC_MODES = ("standard", "robust", "off")
# The standard canceller removes echo that comes this much later than the delay
# it is told (README, "Echo delay"); robust mode finds later echoes itself.
AEC_WINDOW_MS = (15.0, 55.0)

# Digital silence would give infinite levels; clamp below the 16-bit noise floor
# (one LSB RMS is about -90 dBFS) so empty windows read as "very quiet".
LEVEL_FLOOR_DB = -100.0

DEFAULTS = {
    "window": 1.0,          # s, ERLE window
    "far_threshold": -50.0,  # dBFS, delayed playback level that counts as far end active
    "near_threshold": -50.0,  # dBFS, capture level that counts as someone talking
    "margin": 3.0,          # dB above the echo path that still counts as echo only
    "good_erle": 20.0,      # dB, verdict threshold
    "max_delay_ms": 1000.0,
}

HELP_RULES = """\
how the windows are judged (1 s windows by default):
  The playback is first shifted by the estimated echo delay, so that each
  window compares the capture with the far-end sound that it can contain.
  far end active   delayed playback level > --far-threshold dBFS.
  echo path        10th percentile, over far-end-active windows, of
                   capture level - delayed playback level: the quietest
                   windows are taken to hold echo alone.
  far-end only     far end active and capture level - delayed playback level
                   <= echo path + --margin dB, i.e. the raw capture is
                   explained by the echo; louder windows hold near-end speech
                   as well (double talk) and are left out.  The tool cannot
                   see the near end directly, so this relies on at least some
                   windows being echo alone.
  ERLE             10*log10(energy(capture) / energy(capture_aec)) per window;
                   its median over far-end-only windows gives the verdict.
                   The processing's fixed gain is included, so the raw ERLE is
                   lower than the echo suppression by that gain; the report
                   also prints the ERLE corrected by the near-end level change.
  near end kept    windows with the far end silent and capture level >
                   --near-threshold dBFS: median of capture_aec level -
                   capture level (positive when the processing adds gain).
  call record      with call.json beside the recordings (taudio2call
                   --measure-aec writes it), a last line compares the echo
                   delay with the delay the canceller was told.
exit status: 0 report written (whatever the verdict), 2 recordings missing or
unreadable.
"""


class ReportError(Exception):
    """A recording is missing or unusable; the message is meant for the user."""


@dataclass
class Recordings:
    rate: int
    capture: np.ndarray
    capture_aec: np.ndarray
    playback: np.ndarray
    notes: list = field(default_factory=list)

    @property
    def duration(self):
        return len(self.capture) / self.rate


@dataclass
class WindowAnalysis:
    window_s: float
    starts: np.ndarray          # window start times, s
    capture_db: np.ndarray
    aec_db: np.ndarray
    playback_db: np.ndarray     # playback delayed by the echo delay
    erle_db: np.ndarray
    far_active: np.ndarray      # bool
    far_only: np.ndarray        # bool
    near_only: np.ndarray       # bool, far end silent and capture active
    echo_path_db: float         # nan when the far end is never active


@dataclass
class Report:
    recordings: Recordings
    delay_ms: float             # nan when the playback or the capture is silent
    windows: WindowAnalysis
    erle_median_db: float       # nan without far-end-only windows
    near_change_db: float       # nan without near-end-only windows
    good_erle_db: float
    verdict: str


def read_recordings(directory):
    """Loads the three files from directory; raises ReportError if unusable."""
    signals = {}
    rates = {}
    notes = []
    for name in FILES:
        path = os.path.join(directory, name)
        if not os.path.isfile(path):
            raise ReportError(f"missing {path}")
        try:
            data, rate = sf.read(path, dtype="float64", always_2d=True)
        except (RuntimeError, OSError) as exc:
            raise ReportError(f"cannot read {path}: {exc}") from exc
        if data.shape[1] != 1:
            notes.append(f"{name} has {data.shape[1]} channels; using the first")
        signals[name] = data[:, 0]
        rates[name] = rate
    if len(set(rates.values())) != 1:
        listed = ", ".join(f"{n} {r} Hz" for n, r in rates.items())
        raise ReportError(f"the recordings have different sample rates: {listed}")
    rate = rates[FILES[0]]
    lengths = [len(s) for s in signals.values()]
    n = min(lengths)
    if n == 0:
        raise ReportError(f"the recordings in {directory} are empty")
    # The files grow one period at a time, so a stop can leave them one period apart.
    if max(lengths) - n > rate * 0.02:
        notes.append("lengths differ by more than one 20 ms period "
                     f"({', '.join(str(x) for x in lengths)} samples); using the common start")
    return Recordings(rate, signals["capture.wav"][:n], signals["capture_aec.wav"][:n],
                      signals["playback.wav"][:n], notes)


def level_db(x, block):
    """RMS level in dBFS of consecutive blocks of `block` samples (a partial tail is dropped)."""
    count = len(x) // block
    if count == 0:
        return np.empty(0)
    power = np.mean(np.square(x[:count * block].reshape(count, block)), axis=1)
    floor = 10.0 ** (LEVEL_FLOOR_DB / 10.0)
    return 10.0 * np.log10(np.maximum(power, floor))


def estimate_delay(playback, capture, rate, max_ms=DEFAULTS["max_delay_ms"]):
    """Echo delay of capture behind playback, by FFT cross-correlation over the
    whole recording, searched from 0 to max_ms; nan when either signal is silent."""
    # Pre-emphasis whitens speech, so the peak is sharp rather than a broad hump.
    p = np.append(playback[0], playback[1:] - 0.95 * playback[:-1])
    c = np.append(capture[0], capture[1:] - 0.95 * capture[:-1])
    if not p.any() or not c.any():
        return float("nan")
    n = len(p)
    max_lag = min(int(round(max_ms * rate / 1000.0)), n - 1)
    size = 1 << int(np.ceil(np.log2(2 * n)))
    corr = np.fft.irfft(np.fft.rfft(c, size) * np.conj(np.fft.rfft(p, size)), size)
    lag = int(np.argmax(corr[:max_lag + 1]))
    return 1000.0 * lag / rate


def delayed(x, samples):
    """x shifted later by `samples`, same length, zero-filled at the start."""
    if samples <= 0:
        return x
    return np.concatenate([np.zeros(min(samples, len(x))), x[:max(len(x) - samples, 0)]])


def analyse_windows(rec, delay_ms, window_s=DEFAULTS["window"],
                    far_threshold=DEFAULTS["far_threshold"],
                    near_threshold=DEFAULTS["near_threshold"],
                    margin=DEFAULTS["margin"]):
    """Per-window levels, ERLE and classification; the rules are in HELP_RULES."""
    block = max(1, int(round(window_s * rec.rate)))
    shift = 0 if np.isnan(delay_ms) else int(round(delay_ms * rec.rate / 1000.0))
    cap = level_db(rec.capture, block)
    aec = level_db(rec.capture_aec, block)
    play = level_db(delayed(rec.playback, shift), block)
    erle = cap - aec
    far_active = play > far_threshold
    excess = cap - play
    if far_active.any():
        echo_path = float(np.percentile(excess[far_active], 10))
        far_only = far_active & (excess <= echo_path + margin)
    else:
        echo_path = float("nan")
        far_only = np.zeros_like(far_active)
    near_only = ~far_active & (cap > near_threshold)
    starts = np.arange(len(cap)) * block / rec.rate
    return WindowAnalysis(window_s, starts, cap, aec, play, erle, far_active, far_only,
                          near_only, echo_path)


def analyse(rec, window_s=DEFAULTS["window"], far_threshold=DEFAULTS["far_threshold"],
            near_threshold=DEFAULTS["near_threshold"], margin=DEFAULTS["margin"],
            good_erle=DEFAULTS["good_erle"], max_delay_ms=DEFAULTS["max_delay_ms"]):
    delay_ms = estimate_delay(rec.playback, rec.capture, rec.rate, max_delay_ms)
    win = analyse_windows(rec, delay_ms, window_s, far_threshold, near_threshold, margin)
    erle_median = float(np.median(win.erle_db[win.far_only])) if win.far_only.any() else float("nan")
    near_change = (float(np.median(win.aec_db[win.near_only] - win.capture_db[win.near_only]))
                   if win.near_only.any() else float("nan"))
    verdict = judge(erle_median, near_change, good_erle)
    return Report(rec, delay_ms, win, erle_median, near_change, good_erle, verdict)


def judge(erle_median, near_change, good_erle=DEFAULTS["good_erle"]):
    """One-line verdict on the echo cancellation (and on near-end speech loss)."""
    if np.isnan(erle_median):
        text = "cannot judge: no far-end-only stretch (far end silent, or always double talk)"
    elif erle_median >= good_erle:
        text = f"echo cancelled well (median ERLE {erle_median:.1f} dB >= {good_erle:g} dB)"
    else:
        text = f"weak echo cancellation (median ERLE {erle_median:.1f} dB < {good_erle:g} dB)"
    # Removing everything also "cancels" echo; say so when the talker suffers too.
    if not np.isnan(near_change) and near_change < -10.0:
        text += f"; but near-end speech lost {-near_change:.1f} dB"
    return text


def read_call_record(directory):
    """The call's record from call.json, or None when there is none or it is unusable."""
    path = os.path.join(directory, CALL_RECORD)
    try:
        with open(path, encoding="utf-8") as f:
            record = json.load(f)
        usable = (int(record["told_delay_ms"]) >= 0 and record["aec_mode"] in AEC_MODES
                  and int(record["robust_told_delay_ms"]) > 0 and int(record["robust_earliest_ms"]) >= 0)
        int(record["playback_channels"])
    except (OSError, ValueError, KeyError, TypeError):
        # An older taudio2call's record lacks the robust fields: no diagnosis
        # rather than one from guessed rules.
        return None
    return record if usable else None


def diagnose(delay_ms, record):
    """One line: the measured echo delay against the told delay and the canceller's
    window, and what to change when the echo falls outside it."""
    told = int(record["told_delay_ms"])
    mode = record["aec_mode"]
    channels = int(record["playback_channels"])
    earliest = int(record["robust_earliest_ms"])
    if mode == "off":
        return "diagnosis: the device ran no echo canceller in this call"
    if np.isnan(delay_ms):
        return f"diagnosis: told {told} ms, but no echo delay could be measured"
    late = delay_ms - told
    low, high = told + AEC_WINDOW_MS[0], told + AEC_WINDOW_MS[1]
    text = (f"diagnosis: echo {delay_ms:.0f} ms, told {told} ms ({mode} mode, {channels} output "
            f"channel{'s' if channels != 1 else ''}): {late:+.0f} ms; ")
    other = "one output channel (--channels 1)" if channels == 2 else "two output channels (--channels 2)"
    too_early = (text + "the echo comes before the told delay, which neither mode handles well; "
                 f"try {other}: taudio2call --calibrate measures both")
    if mode == "robust":
        if late < -earliest:
            return too_early
        return text + f"within robust mode's reach (from {earliest} ms before the told delay on)"
    if low <= delay_ms <= high:
        return text + f"inside the standard window ({low:.0f} to {high:.0f} ms)"
    if delay_ms < int(record["robust_told_delay_ms"]) - earliest:
        return too_early
    return text + (f"outside the standard window ({low:.0f} to {high:.0f} ms); "
                   "run with --aec robust")


def format_report(report, directory, record=None):
    rec, win = report.recordings, report.windows
    lines = [f"files: {', '.join(os.path.join(directory, f) for f in FILES)} ({rec.rate} Hz)"]
    lines += [f"note: {n}" for n in rec.notes]
    lines.append(f"duration: {rec.duration:.2f} s")
    if np.isnan(report.delay_ms):
        lines.append("echo delay: n/a (playback or capture is silent)")
    else:
        lines.append(f"echo delay: {report.delay_ms:.1f} ms")
    if not np.isnan(win.echo_path_db):
        lines.append(f"echo path: {win.echo_path_db:+.1f} dB (capture vs delayed playback)")
    lines.append(f"ERLE per {win.window_s:g} s window, dB "
                 "(* far-end only, + double talk, . far end silent):")
    marks = np.where(win.far_only, "*", np.where(win.far_active, "+", "."))
    per_row = 10
    for i in range(0, len(win.erle_db), per_row):
        cells = " ".join(f"{e:6.1f}{m}" for e, m in zip(win.erle_db[i:i + per_row],
                                                          marks[i:i + per_row]))
        lines.append(f"  {win.starts[i]:6.0f} s: {cells}")
    count = int(win.far_only.sum())
    if np.isnan(report.erle_median_db):
        lines.append("ERLE median: n/a (no far-end-only window)")
    else:
        lines.append(f"ERLE median: {report.erle_median_db:.1f} dB over {count} far-end-only "
                     f"window{'s' if count != 1 else ''} of {len(win.erle_db)}")
    near = int(win.near_only.sum())
    if np.isnan(report.near_change_db):
        lines.append("near-end level kept: n/a (no window with near end and no far end)")
    else:
        lines.append(f"near-end level kept: {report.near_change_db:+.1f} dB "
                     f"(capture_aec vs capture, median over {near} near-end-only "
                     f"window{'s' if near != 1 else ''})")
        if not np.isnan(report.erle_median_db):
            lines.append("ERLE corrected for that gain: "
                         f"{report.erle_median_db + report.near_change_db:.1f} dB")
    lines.append(f"verdict: {report.verdict}")
    if record is not None:
        lines.append(diagnose(report.delay_ms, record))
    return lines


def plot_report(report, png_path):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    from matplotlib.patches import Patch

    rec, win = report.recordings, report.windows
    block = max(1, int(round(0.1 * rec.rate)))
    fig, (top, bottom) = plt.subplots(2, 1, figsize=(11, 7), sharex=True,
                                      height_ratios=[3, 2])
    fig.suptitle(f"Echo cancellation report: {report.verdict}", fontsize=11)
    for signal, label, color in ((rec.playback, "playback (far end)", "tab:blue"),
                                 (rec.capture, "capture (raw microphone)", "tab:orange"),
                                 (rec.capture_aec, "capture_aec (processed)", "tab:green")):
        levels = level_db(signal, block)
        top.plot((np.arange(len(levels)) + 0.5) * block / rec.rate, levels,
                 label=label, color=color, linewidth=1)
    top.set_ylim(LEVEL_FLOOR_DB, 0)
    top.set_ylabel("level (dBFS per 100 ms)")
    delay = "n/a" if np.isnan(report.delay_ms) else f"{report.delay_ms:.1f} ms"
    top.set_title(f"Signal levels (echo delay {delay})", fontsize=10, loc="left")
    top.grid(True, alpha=0.3)
    top.legend(loc="lower right", bbox_to_anchor=(1.0, 1.0), ncol=3, fontsize=8, frameon=False)

    colors = np.select([win.far_only, win.far_active, win.near_only],
                       ["tab:red", "tab:gray", "tab:green"], "lightgray")
    bottom.bar(win.starts + win.window_s / 2, win.erle_db, width=win.window_s * 0.85,
               color=colors)
    handles = [Patch(color="tab:red", label="far-end only (judged)"),
               Patch(color="tab:gray", label="double talk"),
               Patch(color="tab:green", label="near end only"),
               Patch(color="lightgray", label="silence")]
    if not np.isnan(report.erle_median_db):
        handles.append(bottom.axhline(report.erle_median_db, color="tab:red", linestyle="--",
                                      linewidth=1,
                                      label=f"median {report.erle_median_db:.1f} dB"))
    handles.append(bottom.axhline(report.good_erle_db, color="black", linestyle=":",
                                  linewidth=1, label=f"good: {report.good_erle_db:g} dB"))
    bottom.axhline(0, color="black", linewidth=0.5)
    bottom.set_ylabel("ERLE (dB)")
    bottom.set_xlabel("time (s)")
    bottom.set_title(f"ERLE per {win.window_s:g} s window", fontsize=10, loc="left")
    bottom.grid(True, axis="y", alpha=0.3)
    bottom.legend(handles=handles, loc="lower right", bbox_to_anchor=(1.0, 1.0), ncol=6,
                  fontsize=8, frameon=False)
    bottom.set_xlim(0, max(rec.duration, win.window_s))
    fig.tight_layout()
    fig.savefig(png_path, dpi=100)
    plt.close(fig)


def parse_args(argv):
    parser = argparse.ArgumentParser(
        prog="aec_report.py",
        description="Report how well echo cancellation worked, from the device's "
                    "capture.wav, capture_aec.wav and playback.wav.",
        epilog=HELP_RULES, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--dir", default=None,
                        help="directory holding the recordings (default: $HOME)")
    parser.add_argument("--png", default=None,
                        help="where to write the plot (default: DIR/aec_report.png)")
    parser.add_argument("--window", type=float, default=DEFAULTS["window"],
                        help="ERLE window in seconds (default: %(default)s)")
    parser.add_argument("--far-threshold", type=float, default=DEFAULTS["far_threshold"],
                        help="far end active above this dBFS (default: %(default)s)")
    parser.add_argument("--near-threshold", type=float, default=DEFAULTS["near_threshold"],
                        help="capture active above this dBFS (default: %(default)s)")
    parser.add_argument("--margin", type=float, default=DEFAULTS["margin"],
                        help="dB above the echo path still counted as echo only "
                             "(default: %(default)s)")
    parser.add_argument("--good-erle", type=float, default=DEFAULTS["good_erle"],
                        help="median ERLE in dB needed for a good verdict "
                             "(default: %(default)s)")
    args = parser.parse_args(argv)
    if args.window <= 0:
        parser.error("--window must be positive")
    return args


def main(argv=None):
    args = parse_args(sys.argv[1:] if argv is None else argv)
    directory = args.dir if args.dir is not None else os.path.expanduser("~")
    png = args.png if args.png is not None else os.path.join(directory, "aec_report.png")
    try:
        rec = read_recordings(directory)
    except ReportError as exc:
        print(f"aec_report: {exc}", file=sys.stderr)
        return 2
    report = analyse(rec, args.window, args.far_threshold, args.near_threshold,
                     args.margin, args.good_erle)
    for line in format_report(report, directory, read_call_record(directory)):
        print(line)
    try:
        plot_report(report, png)
    except OSError as exc:
        print(f"aec_report: cannot write the plot {png}: {exc}", file=sys.stderr)
        return 1
    print(f"plot: {os.path.abspath(png)}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
