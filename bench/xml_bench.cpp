// The XML view against the DOM it reads. A cached GetAttribute is a binary search of the tag's
// sorted attributes with no DOM call; the first fetch asks the DOM for the attribute map and the
// named item and builds the attribute. FindTagV over four names walks the children of each level
// through the DOM and builds a tag per level, against the same walk done with bare DOM calls.
#include <benchmark/benchmark.h>

#include <string>

#include "TernCoreLib.h"
#include "bench/bench_compare.h"

namespace {

// Four levels; at each, the child looked for comes after five others, and every element has
// eight attributes.
std::wstring BenchDocument() {
  const std::wstring attributes =
      L" a1='1' a2='2' a3='3' a4='4' a5='5' a6='6' a7='7' port='8080'";
  std::wstring text = L"<Config" + attributes + L">";
  for (const wchar_t* level : {L"Section", L"Group", L"Item"}) {
    for (int i = 0; i < 5; ++i) text += L"<Other" + std::to_wstring(i) + attributes + L"/>";
    text += std::wstring(L"<") + level + attributes + L">";
  }
  return text + L"value</Item></Group></Section></Config>";
}

void BM_GetAttributeCached(benchmark::State& state) {
  KVT::CXml xml(BenchDocument().c_str());
  KVT::CXMLTag* root = xml.GetRoot();
  for (const wchar_t* name : {L"a1", L"a2", L"a3", L"a4", L"a5", L"a6", L"a7"}) {
    root->GetAttribute(name);
  }
  for (auto _ : state) benchmark::DoNotOptimize(root->GetAttribute(L"port"));
}
BENCHMARK(BM_GetAttributeCached);

// A fresh tag over the root's node each time, so that the cache is empty; building and
// destroying the tag is part of the cost.
void BM_GetAttributeFirstFetch(benchmark::State& state) {
  KVT::CXml xml(BenchDocument().c_str());
  KVT::CXMLTag* root = xml.GetRoot();
  for (auto _ : state) {
    KVT::CXMLTag tag(root->domNode, L"Config");
    benchmark::DoNotOptimize(tag.GetAttribute(L"port"));
  }
}
BENCHMARK(BM_GetAttributeFirstFetch);

// Each walk leaves its tags in the tree, so the tree is reloaded (outside the timing) every
// so many walks.
void BM_FindTagVFourNames(benchmark::State& state) {
  const std::wstring text = BenchDocument();
  KVT::CXml xml(text.c_str());
  int walks = 0;
  for (auto _ : state) {
    KVT::CXMLTag* item = xml.FindTagV(L"config", L"section", L"group", L"item", nullptr);
    benchmark::DoNotOptimize(item);
    if (++walks == 2000) {
      state.PauseTiming();
      xml.LoadXML(text.c_str());
      walks = 0;
      state.ResumeTiming();
    }
  }
}
BENCHMARK(BM_FindTagVFourNames);

// The same walk with the DOM's own calls: first child, next sibling, name, compared without
// regard to case.
IXMLDOMNode* ChildNamed(IXMLDOMNode* parent, const wchar_t* name) {
  IXMLDOMNode* child = nullptr;
  parent->get_firstChild(&child);
  while (child != nullptr) {
    BSTR childName = nullptr;
    child->get_nodeName(&childName);
    const bool match = childName != nullptr && _wcsicmp(childName, name) == 0;
    ::SysFreeString(childName);
    if (match) return child;
    IXMLDOMNode* next = nullptr;
    child->get_nextSibling(&next);
    child->Release();
    child = next;
  }
  return nullptr;
}

void BM_DomWalkFourNames(benchmark::State& state) {
  KVT::CXml xml(BenchDocument().c_str());
  IXMLDOMNode* root = xml.GetRoot()->domNode.Get();
  for (auto _ : state) {
    IXMLDOMNode* node = root;
    node->AddRef();
    for (const wchar_t* name : {L"section", L"group", L"item"}) {
      IXMLDOMNode* child = node != nullptr ? ChildNamed(node, name) : nullptr;
      if (node != nullptr) node->Release();
      node = child;
    }
    benchmark::DoNotOptimize(node);
    if (node != nullptr) node->Release();
  }
}
BENCHMARK(BM_DomWalkFourNames);

TERN_BENCH_COMPARE("GetAttribute from the cache vs first fetch from the DOM",
                   "BM_GetAttributeCached", "BM_GetAttributeFirstFetch");
TERN_BENCH_COMPARE("FindTagV over four names vs the bare DOM walk", "BM_FindTagVFourNames",
                   "BM_DomWalkFourNames");

}  // namespace
