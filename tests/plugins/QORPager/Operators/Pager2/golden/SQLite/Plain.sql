SELECT "vPeople"."id", "vPeople"."name" FROM "vPeople"
