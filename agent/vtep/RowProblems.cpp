#include "agent/vtep/RowProblems.h"

#include <string>

#include "service/ovsdb/JsonReader.h"

namespace Agent::Vtep {

namespace {

std::string quotedLine(const BoundedText& text) {
  return "\"" + Ovsdb::printable(text.kept()) + "\"";
}

std::string textOf(const RowStore::Hosts& hosts, Slot slot) {
  if (const BoundedText* const bad = hosts.badMac(slot)) {
    return quotedLine(*bad) + " is not the MAC of a host";
  }
  const RowStore::Hosts::Row& row = hosts.row(slot);
  const std::string mac = macText(row.mac);
  const std::string in = " in logical switch " + row.logicalSwitch->name.quoted();
  switch (row.problem) {
    case ProblemKind::duplicateMac:
      return mac + in + ": another row of this MAC came later";
    case ProblemKind::locatorUnusable:
      return mac + in + ": the locator's address " + quotedLine(row.target->text) + " cannot be used";
    case ProblemKind::referenceMissing:
      return mac + ": its logical switch or locator is not there";
    default:
      return mac + in;
  }
}

std::string textOf(const RowStore::Floods& floods, Slot slot) {
  if (const BoundedText* const bad = floods.badMac(slot)) {
    return quotedLine(*bad) + " is not a MAC";
  }
  const RowStore::Floods::Row& row = floods.row(slot);
  const std::string mac = row.mac == unknownDestination ? "\"unknown-dst\"" : "\"" + macText(row.mac) + "\"";
  switch (row.problem) {
    case ProblemKind::duplicateMac:
      return mac + ": another row of this MAC came later";
    case ProblemKind::referenceMissing:
      return mac + ": its logical switch, locator set or one of its locators is not there";
    default:
      return mac + ": a locator of its set cannot be used";
  }
}

template <typename MacRows>
void add(const MacRows& table, Table name, std::size_t most, std::vector<Problem>& list) {
  for (const Ovsdb::Uuid& uuid : table.badRows()) {
    if (list.size() >= most) {
      return;
    }
    const Slot slot = table.find(uuid);
    list.push_back({table.row(slot).problem, name, uuid, textOf(table, slot)});
  }
}

}  // namespace

std::vector<Problem> problemsOf(const RowStore& rows, std::size_t most) {
  std::vector<Problem> list;
  for (const Ovsdb::Uuid& uuid : rows.badLocators()) {
    if (list.size() >= most) {
      return list;
    }
    const BoundedText& text = rows.locators()[rows.locators().find(uuid)].text;
    list.push_back({ProblemKind::locatorNotIpv4, Table::physicalLocator, uuid,
                    "the address " + quotedLine(text) + " is not an IPv4 address at which a tunnel can end"});
  }
  add(rows.floods(), Table::mcastMacsRemote, most, list);
  add(rows.hosts(), Table::ucastMacsRemote, most, list);
  return list;
}

}  // namespace Agent::Vtep
