"""The numbers that a benchmark finds."""
import dataclasses


@dataclasses.dataclass
class Figure:
    """A number that was measured, with its target: at least `least`, or at most `most`."""
    what: str
    value: float
    unit: str
    least: float = None
    most: float = None

    def met(self):
        """Whether the target is met; None without a target."""
        if self.least is not None:
            return self.value >= self.least
        return self.value <= self.most if self.most is not None else None

    def __str__(self):
        text = f"{self.what} {self.value:.4g} {self.unit}".rstrip()
        if self.met() is None:
            return text
        target = f"at most {self.most:g}" if self.least is None else f"at least {self.least:g}"
        return f"{text} ({target}: {'met' if self.met() else 'MISSED'})"
