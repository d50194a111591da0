#!/usr/bin/env python3
"""The common approach elsewhere, as a baseline for the import benchmark: a pull parser
(xml.etree.ElementTree.iterparse, clearing elements as it goes) feeding batched SQLite inserts.
Usage: baseline_import.py EXPORT_XML DATABASE. Prints the number of records stored."""
import sqlite3
import sys
import xml.etree.ElementTree as ET

BATCH = 10000
RECORD_COLUMNS = ("type", "sourceName", "sourceVersion", "device", "unit", "creationDate",
                  "startDate", "endDate", "value")


def main(xml_path, db_path):
    db = sqlite3.connect(db_path)
    db.execute("PRAGMA journal_mode=WAL")
    db.execute("PRAGMA synchronous=NORMAL")
    db.execute("CREATE TABLE IF NOT EXISTS records (type TEXT, source_name TEXT, "
               "source_version TEXT, device TEXT, unit TEXT, creation_date TEXT, "
               "start_date TEXT, end_date TEXT, value TEXT, metadata TEXT)")
    db.execute("CREATE TABLE IF NOT EXISTS workouts (activity_type TEXT, duration TEXT, "
               "source_name TEXT, start_date TEXT, end_date TEXT, statistics TEXT)")
    db.execute("CREATE INDEX IF NOT EXISTS records_by_type ON records (type, start_date)")
    batch = []
    count = 0
    depth = 0
    root = None
    # The DOCTYPE of some exports is not well-formed: skip it as text, as such scripts do.
    with open(xml_path, "rb") as raw:
        head = b""
        while b"<HealthData" not in head:
            chunk = raw.read(65536)
            if not chunk:
                break
            head += chunk
        start = head.find(b"<!DOCTYPE")
        root = head.find(b"<HealthData")
        if 0 <= start < root:
            head = head[:start] + head[root:]

        class Stream:
            def __init__(self):
                self.pending = head

            def read(self, size=-1):
                if self.pending:
                    data, self.pending = self.pending, b""
                    return data
                return raw.read(size if size and size > 0 else 1 << 16)

        for event, element in ET.iterparse(Stream(), events=("start", "end")):
            if event == "start":
                depth += 1
                if depth == 1:
                    root = element
                continue
            depth -= 1
            if depth != 1:
                continue
            if element.tag == "Record":
                metadata = ";".join(f"{m.get('key')}={m.get('value')}"
                                    for m in element.iter("MetadataEntry"))
                batch.append(tuple(element.get(c) for c in RECORD_COLUMNS) + (metadata,))
                count += 1
            elif element.tag == "Workout":
                statistics = ";".join(f"{s.get('type')}={s.get('sum')}"
                                      for s in element.iter("WorkoutStatistics"))
                db.execute("INSERT INTO workouts VALUES (?, ?, ?, ?, ?, ?)",
                           (element.get("workoutActivityType"), element.get("duration"),
                            element.get("sourceName"), element.get("startDate"),
                            element.get("endDate"), statistics))
                count += 1
            element.clear()
            if len(batch) >= BATCH:
                db.executemany("INSERT INTO records VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", batch)
                db.commit()
                batch.clear()
                root.clear()  # cleared children still hang from the root otherwise
    if batch:
        db.executemany("INSERT INTO records VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)", batch)
    db.commit()
    db.close()
    print(count)


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
