"""The tables of a switch agent, for scripts that look at them.

    import vorn

    with vorn.attach("/run/vorn") as system:
        for entry in system.table("v4").entries(match="dport=179"):
            print(entry)

A state directory is attached for reading, beside a live agent or after its death. Tables, entries,
changes, acknowledgements and indexes are objects; walks over them are lazy. What is a row (entries,
changes, figures, ...) is taken by pandas.DataFrame(rows) as it is. What cannot be read on a walk is
warned of with DamageWarning, collected in System.damages, and the walk goes on.

A Recording is what an agent has recorded of itself: every change, when it was committed and when
hardware had it.
"""

from vorn._vorn import (
    Acknowledgement,
    Acknowledgements,
    ActionEntry,
    Change,
    ChangeIterator,
    Damage,
    DamageError,
    DamageWarning,
    Entry,
    EntryIterator,
    Error,
    Explanation,
    FileError,
    Figures,
    MatchEntry,
    NotRunningError,
    QuestionError,
    RecordedChange,
    RecordedEvent,
    RecordedEventIterator,
    Recording,
    RefusedError,
    Resource,
    ResourceIterator,
    StateDirectoryError,
    System,
    Table,
    __version__,
    attach,
)

__all__ = [
    "Acknowledgement",
    "Acknowledgements",
    "ActionEntry",
    "Change",
    "ChangeIterator",
    "Damage",
    "DamageError",
    "DamageWarning",
    "Entry",
    "EntryIterator",
    "Error",
    "Explanation",
    "FileError",
    "Figures",
    "MatchEntry",
    "NotRunningError",
    "QuestionError",
    "RecordedChange",
    "RecordedEvent",
    "RecordedEventIterator",
    "Recording",
    "RefusedError",
    "Resource",
    "ResourceIterator",
    "StateDirectoryError",
    "System",
    "Table",
    "__version__",
    "attach",
]
