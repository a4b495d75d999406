"""The dashboard for Grafana, over the metrics of snmp_exporter's module and the recording rules."""

import json

TITLE, UID = "Host (vexhostd)", "vexhostd-host"
SOURCE = {"type": "prometheus", "uid": "${source}"}
HOST = '{instance="$instance"}'
COLOURS = {"unassessed": "text", "notKnown": "text", "normal": "green", "raised": "orange",
           "severe": "red"}
WIDTH = 24


def target(expression, legend="", instant=False):
    return {"datasource": SOURCE, "expr": expression, "legendFormat": legend or "__auto",
            "refId": "", "instant": instant, "range": not instant,
            "format": "table" if instant else "time_series"}


class Dashboard:
    def __init__(self, modules):
        self.modules = modules
        self.panels = []
        self.x = self.y = self.row_height = 0

    def add(self, kind, title, width, height, targets, unit="short", options=None, field=None,
            transformations=None):
        """Puts a panel behind the last one, or below when there is no room."""
        if self.x + width > WIDTH:
            self.x, self.y, self.row_height = 0, self.y + self.row_height, 0
        for number, one in enumerate(targets):
            one["refId"] = "ABCDEFGH"[number]
        panel = {"id": len(self.panels) + 1, "type": kind, "title": title, "datasource": SOURCE,
                 "gridPos": {"x": self.x, "y": self.y, "w": width, "h": height},
                 "targets": targets,
                 "fieldConfig": {"defaults": dict({"unit": unit}, **(field or {})),
                                 "overrides": []},
                 "options": options or {}}
        if transformations:
            panel["transformations"] = transformations
        self.panels.append(panel)
        self.x += width
        self.row_height = max(self.row_height, height)

    def words(self, name):
        """An enumeration's words in place of its numbers."""
        return [{"type": "value", "options": {
            str(number): dict({"text": word, "index": index},
                              **({"color": COLOURS[word]} if word in COLOURS else {}))
            for index, (number, word) in enumerate(sorted(self.modules.numbers(name).items()))}}]

    def stat(self, title, expression, unit="short", field=None):
        self.add("stat", title, 4, 4, [target(expression)], unit,
                 {"reduceOptions": {"calcs": ["lastNotNull"], "fields": "", "values": False},
                  "colorMode": "value", "graphMode": "none"}, field)

    def lines(self, title, targets, unit, most=None, width=12):
        field = {"min": 0, "custom": {"lineWidth": 1, "fillOpacity": 5, "showPoints": "never"}}
        if most is not None:
            field["max"] = most
        self.add("timeseries", title, width, 8, [target(*one) for one in targets], unit,
                 {"legend": {"displayMode": "list", "placement": "bottom", "showLegend": True,
                             "calcs": []},
                  "tooltip": {"mode": "multi", "sort": "none"}}, field)

    def build(self):
        by_description = "{{tlxHoFileSysDesc}}"
        self.stat("Condition", f"tlxHoMibCondition{HOST}",
                  field={"mappings": self.words("tlxHoMibCondition")})
        self.stat("Processors", f"avg(vexhost:cpu_utilisation:ratio5m{HOST})", "percentunit")
        self.stat("Memory available", f"vexhost:memory_available:ratio{HOST}", "percentunit")
        self.stat("Fullest file system", f"max(vexhost:filesystem_used:ratio{HOST})",
                  "percentunit", {"thresholds": {"mode": "absolute", "steps": [
                      {"color": "green", "value": None}, {"color": "orange", "value": 0.85},
                      {"color": "red", "value": 0.95}]}})
        self.stat("Uptime", f"vexhost:uptime_seconds{HOST}", "s")
        self.stat("Age of the values", f"vexhost:last_poll_age_seconds{HOST}", "s")
        self.lines("Processors, 5 minutes",
                   [(f"vexhost:cpu_utilisation:ratio5m{HOST}", "{{tlxHoCpuUtilUnitIndex}}")],
                   "percentunit", 1)
        self.lines("Load", [(f"tlxHoLoadOne{HOST} / 100", "1 minute"),
                            (f"tlxHoLoadFive{HOST} / 100", "5 minutes"),
                            (f"tlxHoLoadFifteen{HOST} / 100", "15 minutes")], "short")
        self.lines("Memory", [(f"vexhost:memory_size_bytes{HOST}", "size"),
                              (f"vexhost:memory_available_bytes{HOST}", "available"),
                              (f"(tlxHoMemoryCached{HOST} >= 0) * 1048576", "cached")], "bytes")
        self.lines("Swap space used", [(f"vexhost:swap_used:ratio{HOST}", "used")], "percentunit",
                   1)
        self.lines("File systems: used", [(f"vexhost:filesystem_used:ratio{HOST}",
                                           by_description)], "percentunit", 1)
        self.lines("File systems: inodes used", [(f"vexhost:filesystem_inodes_used:ratio{HOST}",
                                                  by_description)], "percentunit", 1)
        columns = {"Time": True, "__name__": True, "instance": True, "job": True}
        tidy = [{"id": "organize", "options": {"excludeByName": columns}}]
        self.add("table", "Mounts", 12, 8, [target(f"max without (tlxHoMountRow) (tlxHoMountState{HOST})",
                                                   instant=True)],
                 field={"mappings": self.words("tlxHoMountState")}, transformations=tidy)
        self.add("table", "Agents beside it", 12, 8,
                 [target(f"tlxHoSiblingHealth{HOST} > 0 or tlxHoSiblingCondition{HOST} > 0",
                         instant=True)],
                 field={"mappings": self.words("tlxHoSiblingHealth")}, transformations=tidy)
        self.add("table", "Software", 12, 8, [target(f"tlxHoSwKind{HOST}", instant=True)],
                 field={"mappings": self.words("tlxHoSwKind")}, transformations=tidy)
        self.add("table", "Firmware", 12, 8, [target(f"tlxHoFwKindDevice{HOST}", instant=True)],
                 field={"mappings": self.words("tlxHoFwKindDevice")}, transformations=tidy)
        self.lines("Duration of a poll", [(f"tlxHoAgentPollDuration{HOST} / 1000", "last poll")],
                   "s")
        self.lines("Polls that ended early", [(f"increase(tlxHoAgentFailedPolls{HOST}[15m])",
                                               "in 15 minutes")], "short")
        return {
            "uid": UID, "title": TITLE, "tags": ["vexhostd"], "schemaVersion": 36, "version": 1,
            "editable": True, "graphTooltip": 1, "refresh": "1m", "timezone": "browser",
            "description": "Written by scripts/make-integrations from the modules in mibs/.",
            "time": {"from": "now-6h", "to": "now"}, "annotations": {"list": []}, "links": [],
            "templating": {"list": [
                {"name": "source", "label": "Data source", "type": "datasource",
                 "query": "prometheus"},
                {"name": "instance", "label": "Host", "type": "query", "datasource": SOURCE,
                 "query": {"query": "label_values(tlxHoAgentStart, instance)",
                           "refId": "instance"}, "refresh": 2, "sort": 1}]},
            "panels": self.panels}


def files(modules):
    return {"grafana/vexhost.json":
            json.dumps(Dashboard(modules).build(), indent=2, ensure_ascii=False) + "\n"}
