"""A line of the table, and how it is judged. Every module of rows has NUMBERS, the numbers of its rows, and
rows(context), which measures those that context.wants(number) and returns a list of Row."""

from dataclasses import dataclass
from statistics import median
from typing import Optional, Sequence

Pairs = Sequence[tuple[float, float]]  # of ours and the other

# Two runs of one command differ by up to this share on the machine where the targets were set.
NOISE = 0.14


@dataclass(frozen=True)
class Row:
    number: int  # several lines may share one: CPU and wall time of the same work
    work: str  # what was measured: "upload of 1 GiB, plain"
    against: str  # what it is compared with: "curl -F"
    quantity: str  # with its unit: "CPU s", "wall s", "MB"
    ours: float  # median
    other: float  # median
    value: float  # what is judged: the median of the pairs' ratios, or a difference in the quantity's unit
    target: Optional[float]  # the highest value that meets it; None where the row only informs
    is_difference: bool = False

    @property
    def verdict(self) -> str:
        if self.target is None:
            return ""
        if self.value <= self.target:
            return "met"
        if self.value <= self.target * (1 + NOISE):
            return "met (within noise)"
        return "NOT MET"


def ratio_row(number: int, work: str, against: str, quantity: str, pairs: Pairs, target: Optional[float]) -> Row:
    """A row out of pairs (ours, other) of runs that followed each other."""
    return Row(number, work, against, quantity,
               ours=median(ours for ours, _ in pairs), other=median(other for _, other in pairs),
               value=median(ours / other for ours, other in pairs), target=target)


def difference_row(number: int, work: str, against: str, quantity: str, pairs: Pairs,
                   target: Optional[float]) -> Row:
    """A row whose target is how much more ours takes, in the quantity's unit."""
    return Row(number, work, against, quantity,
               ours=median(ours for ours, _ in pairs), other=median(other for _, other in pairs),
               value=median(ours - other for ours, other in pairs), target=target, is_difference=True)
