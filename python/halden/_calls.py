"""How one library call runs: errors, the callback table, per-thread call
state, holding a queue for the call, and the text progress bar."""

import contextlib
import ctypes
import sys
import threading
from collections.abc import Callable, Iterator

from . import _checks, _native

_STATUS_TEXT = {2: "out of device memory", 3: "device or runtime error"}


class HaldenError(RuntimeError):
    """A failure reported by the library.

    status: the library's status code (2 out of device memory, 3 device or
            runtime error, which includes a rejected argument).
    errors: the texts the library sent through its error slot during the call.
    """

    def __init__(self, message: str, status: int = 3, errors: list[str] | tuple[str, ...] = ()) -> None:
        self.status: int = status
        self.errors: list[str] = list(errors)
        super().__init__(f"{message}: {'; '.join(self.errors)}" if self.errors else message)


class Cancelled(HaldenError):
    """The operation stopped because a progress or cancel callback asked it to."""


class TextBar:
    """A progress bar on stderr, redrawn in place, whose line ends with the call.

    sys.stderr is looked up on every write, so a redirected or captured stream
    gets the whole bar.
    """

    WIDTH = 30

    def __init__(self, label: str) -> None:
        self.label = label
        self.shown = -1
        self(0.0)

    def __call__(self, percent: float) -> bool:
        if percent != percent:  # NaN: nothing to draw, and no reason to stop the run
            return False
        whole = int(min(max(percent, 0.0), 100.0))
        if whole != self.shown:  # the library may report far more often than the bar changes
            self.shown = whole
            filled = whole * self.WIDTH // 100
            sys.stderr.write(f"\r{self.label} [{'#' * filled}{'.' * (self.WIDTH - filled)}] {whole:3d}%")
            sys.stderr.flush()
        return False

    def end(self, outcome: str | None) -> None:
        """Ends the bar's line, naming the outcome unless the call succeeded."""
        sys.stderr.write(f" {outcome}\n" if outcome else "\n")
        sys.stderr.flush()


class _Call:
    """Collects what the library reports while one call runs on this thread."""

    def __init__(self, progress=None, cancel=None):
        self.status = 0
        self.errors = []
        self.progress, self.cancel = progress, cancel
        self.cancelled = False
        self.exception = None

    def failure(self, operation):
        """The exception the call ends with, None when it succeeded."""
        if self.exception is not None:
            return self.exception
        if self.status and self.cancelled:
            return Cancelled(f"{operation} was cancelled", self.status, self.errors)
        if self.status or self.errors:
            # An error text with status 0 (MedianFilter always returns 0) still
            # means the results are not to be trusted.
            status = self.status or 3
            return HaldenError(f"{operation} failed with status {status} ({_STATUS_TEXT.get(status, 'unknown')})",
                               status, self.errors)
        return None


# .call: the _Call running on this thread, None between calls. The library
# sends a call's reports on the thread that made it, so each thread's reports
# reach its own call while other threads run theirs.
_calls = threading.local()


def _current():
    return getattr(_calls, "call", None)


# Module-level so that they outlive every table the library copies them into.
@_native.TEXT_FN
def _on_error(text):
    call = _current()
    if call is not None:
        call.errors.append(text.decode("utf-8", "replace") if text else "")


def _ask(slot, *args):
    """Nonzero once the caller's callback for `slot` has asked to stop (or raised)."""
    call = _current()
    if call is None:
        return 0
    fn = getattr(call, slot)
    if fn is not None and not call.cancelled:
        try:
            call.cancelled = bool(fn(*args))
        except BaseException as e:  # must not unwind into C; re-raised after the call
            call.exception, call.cancelled = e, True
    return int(call.cancelled)


@_native.PROGRESS_FN
def _on_progress(percent):
    return _ask("progress", percent)


@_native.CANCEL_FN
def _on_cancel():
    return _ask("cancel")


_table = _native.Callbacks(error=_on_error, progress=_on_progress, cancel=_on_cancel)
TABLE = ctypes.byref(_table)  # the last argument of every export that takes one


@contextlib.contextmanager
def reported(operation: str, progress: Callable | bool | None = None, cancel: Callable | None = None,
             label: str | None = None) -> Iterator[_Call]:
    """Runs the body as one library call, which sets the yielded call's status,
    and raises for what the library and the callbacks reported. progress=True
    draws a TextBar named `label` for the call."""
    bar = TextBar(label or operation) if progress is True else None
    call = _Call(bar or progress, cancel)
    # A callback may run an operation on another queue: its call nests in this one.
    outer, _calls.call = _current(), call
    try:
        yield call
    except BaseException:
        if bar:
            bar.end("failed")
        raise
    finally:
        _calls.call = outer
    error = call.failure(operation)
    if bar:
        bar.end(None if error is None else "cancelled" if call.cancelled else "failed")
    if error is not None:
        raise error


class Holder:
    """Lends a queue's handle to one call at a time, and lets the queue take it
    back to free it only between calls."""

    def __init__(self) -> None:
        self.handle = None
        self._state = threading.Condition()  # guards handle and _user
        self._user = None  # the thread whose call holds the handle, None between calls

    def _wait_turn(self, refusal):
        # A callback runs on the thread of the call it serves: waiting for
        # that call to end would never return.
        if self._user == threading.get_ident():
            raise RuntimeError(f"the queue is in use by the call running this callback; {refusal}")
        self._state.wait_for(lambda: self._user is None)

    @contextlib.contextmanager
    def lent(self) -> Iterator[int]:
        with self._state:
            self._wait_turn("a callback cannot run an operation on it")
            if not self.handle:
                raise ValueError("the queue is closed")
            self._user = threading.get_ident()
        try:
            yield self.handle
        finally:
            with self._state:
                self._user = None
                self._state.notify_all()

    def take(self) -> int | None:
        """The handle, after the running call if any; the holder is closed from then on."""
        with self._state:
            self._wait_turn("close it after that call returns")
            handle, self.handle = self.handle, None
        return handle


def run(export, q, *args, progress: object = None, cancel: object = None, label: str | None = None) -> None:
    """Calls export(handle of q, *args) as one library call, holding q from
    reading its handle until the export returns.

    progress and cancel are the caller's arguments, for an export that reports
    through the table's progress slot or polls its cancel slot; label names
    the operation on the text bar.
    """
    progress = _checks.callback(progress, "progress", bar=True)
    cancel = _checks.callback(cancel, "cancel")
    holder = getattr(q, "_holder", None)
    if not isinstance(holder, Holder):
        raise TypeError(f"expected a halden.Queue, got {type(q).__name__}")
    with holder.lent() as handle, reported(export.__name__, progress, cancel, label) as call:
        call.status = export(handle, *args)
