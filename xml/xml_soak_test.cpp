// A long run of load, walk and reset: the tree and everything in it must go back each time.
// It runs as a program of its own, so that nothing else in the process moves the figures.
#include "xml/xml.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

namespace {

using KVT::CXml;
using KVT::CXMLAttribute;
using KVT::CXMLTag;

// The bytes in use on all heaps of the process.
std::size_t HeapBytesInUse() {
  std::size_t bytes = 0;
  HANDLE heaps[64];
  const DWORD count = ::GetProcessHeaps(64, heaps);
  for (DWORD i = 0; i < count && i < 64; ++i) {
    PROCESS_HEAP_ENTRY entry = {};
    if (!::HeapLock(heaps[i])) continue;
    while (::HeapWalk(heaps[i], &entry)) {
      if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) bytes += entry.cbData;
    }
    ::HeapUnlock(heaps[i]);
  }
  return bytes;
}

// A document of a few hundred nodes: sections of servers with attributes, comments and text.
std::wstring MidSizedDocument() {
  std::wstring text = L"<?xml version='1.0'?><!DOCTYPE Sites [<!ENTITY org 'Tern'>]><Sites>";
  for (int site = 0; site < 12; ++site) {
    text += L"<Site id='" + std::to_wstring(site) + L"' owner='&org;'><!-- site -->";
    for (int server = 0; server < 6; ++server) {
      text += L"<Server name='s" + std::to_wstring(server) + L"' port='" +
              std::to_wstring(8000 + server) + L"'>host" + std::to_wstring(server) +
              L"<![CDATA[<x>]]></Server>";
    }
    text += L"text</Site>";
  }
  return text + L"</Sites>";
}

// Walks the whole tree, reading every attribute asked for and every value. Gives the nodes seen.
int Walk(CXMLTag* tag) {
  int nodes = 1;
  if (CXMLAttribute* id = tag->GetAttribute(L"id")) nodes += id->ToInt() >= 0;
  if (CXMLAttribute* name = tag->GetAttribute(L"name")) nodes += name->GetValue() != nullptr;
  for (CXMLTag* child = tag->FirstTag(); child != nullptr; child = tag->NextTag()) {
    nodes += Walk(child);
  }
  return nodes;
}

// 300 cycles of load, walk and reset end with no growth of the heap beyond what allocators keep
// for reuse. (The DOM's nodes and the library's tags, attributes and names all live there.)
TEST(XmlSoakTest, LoadWalkResetDoesNotGrow) {
  const std::wstring text = MidSizedDocument();
  CXml xml;
  auto cycle = [&] {
    if (!xml.LoadXML(text.c_str())) return 0;
    const int nodes = Walk(xml.GetRoot());
    xml.FindTagV(L"Sites", L"Site", L"Server", nullptr);
    xml.Reset();
    return nodes;
  };
  const int nodes = cycle();
  ASSERT_GT(nodes, 300);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(nodes, cycle());  // allocators settle
  const std::size_t before = HeapBytesInUse();
  for (int i = 0; i < 300; ++i) ASSERT_EQ(nodes, cycle()) << i;
  // Once the allocators have settled, the heap holds the same bytes after every cycle; one
  // leaked tag, attribute or name per cycle (300 times 40 bytes or more) is above this.
  EXPECT_LE(HeapBytesInUse(), before + 8 * 1024);
}

}  // namespace
