// The managed cases as xunit facts. They share RIGWARDEN_ROOT, so they live in one class,
// which xunit runs one fact at a time; each fact's machine folders go after it.
using System;
using Xunit;

public class SpecsFacts : IDisposable
{
    public void Dispose() => SpecsCases.RemoveMachines();

    [Fact] public void KnownMachine() => SpecsCases.KnownMachine();
    [Fact] public void BundledDatabase() => SpecsCases.BundledDatabase();
}
